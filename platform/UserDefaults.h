// The application's settings, kept between launches.
//
// A SQLite file per application in $XDG_DATA_HOME (or ~/.local/share), shared safely by threads and
// processes; a value that was written is visible at once and survives the process, however that
// ends. What is in the file's place counts, also if it is replaced while the process runs. Nothing
// here fails: a damaged file is set aside and begun anew, and where nothing can be written, or what
// is there is of a later version, values live in memory. An access waits two seconds at most for
// other processes.

#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace quorva::platform {

class UserDefaults {
 public:
  using Value = std::variant<bool, std::string>;

  /// The application's settings, opened on first use and never closed. Any thread.
  [[nodiscard]] static UserDefaults& standard();

  /// The settings in `file`, whose directory is made if it's missing.
  explicit UserDefaults(std::filesystem::path file);
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  ~UserDefaults();

  /// The value under `key`, if there is one and it's a `T` (std::string or bool).
  template <class T>
  [[nodiscard]] std::optional<T> get(std::string_view key) {
    const std::optional<Value> value = read(key);
    const T* typed = value ? std::get_if<T>(&*value) : nullptr;
    return typed ? std::optional(*typed) : std::nullopt;
  }

  /// Stores `value` under `key`; an absent one removes the key.
  void set(std::string_view key, std::optional<Value> value);

 private:
  std::optional<Value> read(std::string_view key);

  class Store;
  std::unique_ptr<Store> store_;
};

/// A setting bound to its key: reading asks the store, writing stores at once. `T` is bool or
/// optional text.
template <class T>
class AppStorage;

template <>
class AppStorage<bool> {
 public:
  constexpr AppStorage(std::string_view key, bool defaultValue)
      : key_(key), default_(defaultValue) {}

  [[nodiscard]] bool get() const {
    return UserDefaults::standard().get<bool>(key_).value_or(default_);
  }
  void set(bool value) const { UserDefaults::standard().set(key_, value); }

 private:
  std::string_view key_;
  bool default_;
};

template <>
class AppStorage<std::optional<std::string>> {
 public:
  constexpr explicit AppStorage(std::string_view key) : key_(key) {}

  [[nodiscard]] std::optional<std::string> get() const {
    return UserDefaults::standard().get<std::string>(key_);
  }
  void set(std::optional<std::string> value) const {
    UserDefaults::standard().set(key_, std::move(value));
  }

 private:
  std::string_view key_;
};

}  // namespace quorva::platform
