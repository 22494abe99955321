// JSON values, their text, and the coders between that text and records.
//
// Threads: values. Errors: results, never exceptions.

#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Error.h"
#include "Export.h"

namespace quorva::platform {

/// Why JSON text, or a value in it, could not become what was asked for.
struct QUORVA_EXPORT DecodingError {
  /// By which `Error::as` knows it.
  static constexpr std::string_view errorDomain = "DecodingError";

  /// What is wrong.
  enum class Kind {
    dataCorrupted,  ///< no JSON, or a value outside its type's range
    typeMismatch,   ///< a value of another JSON type
    keyNotFound,    ///< a required key is missing
    valueNotFound,  ///< a required value is null
  };

  /// `path` as in `codingPath`.
  DecodingError(Kind errorKind, std::vector<std::string> path = {})
      : kind(errorKind), codingPath(std::move(path)) {}

  Kind kind;  ///< of the four
  /// The keys that lead to the value, outermost first; empty for the top level.
  std::vector<std::string> codingPath;

  /// In English, for developers.
  [[nodiscard]] std::string errorDescription() const;
};

/// A value that JSON can't hold: a text that is no UTF-8, or a number that isn't finite.
struct QUORVA_EXPORT EncodingError {
  /// By which `Error::as` knows it.
  static constexpr std::string_view errorDomain = "EncodingError";

  /// In English, for developers.
  [[nodiscard]] std::string errorDescription() const;
};

/// One JSON value: null, a boolean, a number, a text, an array or an object.
class QUORVA_EXPORT JSONValue {
 public:
  /// In the order of the text.
  using Array = std::vector<JSONValue>;
  /// In the order of the text. Where a key occurs twice, `find` gives the first.
  using Object = std::vector<std::pair<std::string, JSONValue>>;

  /// A number as it is spelled: no digit is lost between reading and writing.
  struct Number {
    std::string text;  ///< as in JSON
    /// Whether both are spelled alike: 1 is not 1.0.
    friend bool operator==(const Number&, const Number&) = default;
  };

  /// Null.
  JSONValue() = default;
  /// A boolean, and nothing that merely converts to one.
  template <std::same_as<bool> B>
  JSONValue(B value) : value_(value) {}
  /// A whole number.
  template <std::integral I>
  requires(!std::same_as<I, bool>) JSONValue(I value) : value_(Number{std::to_string(value)}) {}
  /// A number; one that isn't finite is kept from here and refused when it is to be written.
  JSONValue(double value);
  /// @{
  /// The value as given. Text must be UTF-8 when it is to be written.
  JSONValue(Number number) : value_(std::move(number)) {}
  JSONValue(std::string text) : value_(std::move(text)) {}
  JSONValue(std::string_view text) : value_(std::string(text)) {}
  JSONValue(const char* text) : value_(std::string(text)) {}
  JSONValue(Array array) : value_(std::move(array)) {}
  JSONValue(Object object) : value_(std::move(object)) {}
  /// @}

  /// Whether it is JSON's null.
  [[nodiscard]] bool isNull() const noexcept { return value_.index() == 0; }

  /// The value as a `T` (bool, Number, std::string, Array, Object), or null where it is something
  /// else.
  template <class T>
  [[nodiscard]] const T* as() const noexcept {
    return std::get_if<T>(&value_);
  }

  /// Takes the value as a `T` out of this one, if it is one.
  template <class T>
  [[nodiscard]] std::optional<T> take() && {
    T* value = std::get_if<T>(&value_);
    return value ? std::optional(std::move(*value)) : std::nullopt;
  }

  /// The value under `key`, or null where this is no object or has no such key.
  [[nodiscard]] const JSONValue* find(std::string_view key) const noexcept;

  /// Whether both are the same, down to the order of keys and the spelling of numbers.
  friend bool operator==(const JSONValue&, const JSONValue&) = default;

 private:
  std::variant<std::monostate, bool, Number, std::string, Array, Object> value_;
};

/// Reads one JSON text (RFC 8259, UTF-8, no trailing comma, at most 512 levels deep).
[[nodiscard]] QUORVA_EXPORT Result<JSONValue> parseJSON(std::string_view text);

/// Writes `value` compactly, `/` as `\/`, text as UTF-8, whole numbers without a fraction.
[[nodiscard]] QUORVA_EXPORT Result<std::string> serializeJSON(const JSONValue& value);

/// A record that writes itself as a JSON value.
template <class T>
concept Encodable = requires(const T& record) {
  { record.toJSON() } -> std::same_as<JSONValue>;
};

/// A record that reads itself from a JSON value.
template <class T>
concept Decodable = requires(const JSONValue& value) {
  { T::fromJSON(value) } -> std::same_as<Result<T>>;
};

/// Records to JSON text: keys in the record's own order, absent fields left out.
struct JSONEncoder {
  /// The text, or an EncodingError.
  template <Encodable T>
  [[nodiscard]] Result<std::string> encode(const T& record) const {
    return serializeJSON(record.toJSON());
  }
};

/// JSON text to records: keys matched exactly, unknown ones ignored.
struct JSONDecoder {
  /// The record, or a DecodingError.
  template <Decodable T>
  [[nodiscard]] Result<T> decode(std::string_view text) const {
    const Result<JSONValue> value = parseJSON(text);
    return value ? T::fromJSON(*value) : Result<T>(value.error());
  }
};

}  // namespace quorva::platform
