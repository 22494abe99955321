// One error value for everything that can go wrong, and a result that holds it in place of a value.
//
// Threads: values; a copy shares the immutable error inside it and may go to any thread.
// Hosts without exceptions or run-time type information can use all of this header.

#pragma once

#include <concepts>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "Export.h"

namespace quorva::platform {

/// A type that can travel in an Error: it says in words what happened, and has a name of its own.
template <class E>
concept LocalizedError = requires(const E& error) {
  { error.errorDescription() } -> std::convertible_to<std::string>;
  { E::errorDomain } -> std::convertible_to<std::string_view>;
};

/// Any error, unchanged: what completion handlers and delegates receive and what `co_await` throws.
///
///     if (const auto* transport = error.as<URLError>()) retryLater(transport->code);
///
/// Never empty: it has no move, so that a moved-from Error still holds its error.
class QUORVA_EXPORT Error final : public std::exception {
 public:
  /// Holds `error`.
  template <LocalizedError E>
  Error(E error) : held_(std::make_shared<const Held<E>>(std::move(error))) {}
  /// Shares what is held.
  Error(const Error&) noexcept = default;
  /// Shares what is held.
  Error& operator=(const Error&) noexcept = default;
  ~Error() override;

  /// The error's own description, asked for anew: the text that log lines show.
  [[nodiscard]] std::string localizedDescription() const { return held_->description(); }

  /// The error as an `E`, or null where it is something else. Lives as long as this Error.
  template <LocalizedError E>
  [[nodiscard]] const E* as() const noexcept {
    return held_->domain == E::errorDomain ? &static_cast<const Held<E>&>(*held_).error : nullptr;
  }

  /// The description as it was when the error was made.
  [[nodiscard]] const char* what() const noexcept override;

  /// The Error that an exception is, or one that carries the exception's `what()`.
  [[nodiscard]] static Error from(const std::exception_ptr& exception);

 private:
  // Told apart by names, which, unlike addresses or type_info, agree between a library and a host
  // whatever compiler and options each was built with.
  struct Box {
    Box(std::string_view name, std::string text) : domain(name), what(std::move(text)) {}
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;
    virtual ~Box() = default;
    [[nodiscard]] virtual std::string description() const = 0;

    const std::string_view domain;
    const std::string what;
  };

  template <class E>
  struct Held final : Box {
    explicit Held(E e) : Box(E::errorDomain, e.errorDescription()), error(std::move(e)) {}
    [[nodiscard]] std::string description() const override { return error.errorDescription(); }

    const E error;
  };

  std::shared_ptr<const Box> held_;
};

/// An exception that isn't ours, as it came out of a host's own coroutine.
struct ForeignError {
  /// By which `Error::as` knows it.
  static constexpr std::string_view errorDomain = "ForeignError";

  std::string description;  ///< the exception's `what()`

  /// The same.
  [[nodiscard]] const std::string& errorDescription() const { return description; }
};

/// Throws `error`; ends a process that is built without exceptions.
[[noreturn]] QUORVA_EXPORT void throwError(const Error& error);

/// A value or the error that came in its place.
///
///     if (result) use(*result); else report(result.error().localizedDescription());
template <class T>
class [[nodiscard]] Result {
 public:
  /// A value.
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  /// @{
  /// The error in its place.
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}
  template <LocalizedError E>
  Result(E error) : Result(Error(std::move(error))) {}
  /// @}

  /// Whether there is a value.
  explicit operator bool() const noexcept { return state_.index() == 0; }

  /// @{
  /// The value; only where there is one.
  T& operator*() & noexcept { return *std::get_if<0>(&state_); }
  const T& operator*() const& noexcept { return *std::get_if<0>(&state_); }
  const T* operator->() const noexcept { return std::get_if<0>(&state_); }
  /// @}

  /// The value; throws the error where there is none.
  T value() && {
    if (!*this) throwError(error());
    return std::move(**this);
  }

  /// The error; only where there is no value.
  [[nodiscard]] const Error& error() const noexcept { return *std::get_if<1>(&state_); }

 private:
  std::variant<T, Error> state_;
};

/// The end of something, or the error in its place.
template <>
class [[nodiscard]] Result<void> {
 public:
  /// It went well.
  Result() = default;
  /// It didn't.
  Result(Error error) : error_(std::move(error)) {}

  /// Whether it went well.
  explicit operator bool() const noexcept { return !error_; }
  /// Throws the error where there is one.
  void value() && {
    if (error_) throwError(*error_);
  }
  /// The error; only where there is one.
  [[nodiscard]] const Error& error() const noexcept { return *error_; }

 private:
  std::optional<Error> error_;
};

}  // namespace quorva::platform
