#include "platform/JSON.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>

#include "platform/Text.h"

namespace quorva::platform {
namespace {

namespace ondemand = simdjson::ondemand;

// At exit simdjson takes itself down the sooner, the later it was first used. This is early enough
// for the library's threads, which stop before, and for the host's static objects.
[[gnu::constructor(101)]] void useEarly() {
  [[maybe_unused]] const bool isValid = simdjson::validate_utf8("", 0);
}

constexpr int maximumDepth = 512;
constexpr double exactIntegers = 9007199254740992.0;  // 2^53: beyond it doubles skip whole numbers
constexpr std::size_t usualSize = 1024;               // of a text that is written, in bytes

// The number that `token` spells, white space around it aside. simdjson hands a number out as the
// characters up to the next structural one, without a look at them.
JSONValue::Number number(std::string_view token) {
  constexpr std::string_view space = " \t\r\n";
  token.remove_prefix(std::min(token.find_first_not_of(space), token.size()));
  token = token.substr(0, token.find_last_not_of(space) + 1);

  std::string_view rest = token;
  const auto skip = [&](std::string_view any) {
    const bool found = !rest.empty() && any.find(rest.front()) != any.npos;
    rest.remove_prefix(found ? 1 : 0);
    return found;
  };
  const auto digits = [&] {
    const auto before = rest.size();
    while (skip("0123456789")) continue;
    return rest.size() < before;
  };
  skip("-");
  bool isNumber = skip("0") || digits();
  if (skip(".")) isNumber = digits() && isNumber;
  if (skip("eE")) {
    skip("+-");
    isNumber = digits() && isNumber;
  }
  if (!isNumber || !rest.empty()) throw simdjson::simdjson_error(simdjson::NUMBER_ERROR);
  return JSONValue::Number{std::string(token)};
}

// simdjson reads lazily, so everything is looked at here, or it would not be checked. Its
// exceptions end in parseJSON.
JSONValue read(ondemand::value source, int depth) {
  const ondemand::json_type type = source.type().value();
  const bool isContainer =
      type == ondemand::json_type::object || type == ondemand::json_type::array;
  if (isContainer && depth > maximumDepth) throw simdjson::simdjson_error(simdjson::DEPTH_ERROR);
  switch (type) {
    case ondemand::json_type::object: {
      JSONValue::Object entries;
      ondemand::object object = source.get_object().value();
      for (auto field : object) {
        std::string key(field.unescaped_key().value());
        entries.emplace_back(std::move(key), read(field.value().value(), depth + 1));
      }
      return entries;
    }
    case ondemand::json_type::array: {
      JSONValue::Array elements;
      ondemand::array array = source.get_array().value();
      for (auto element : array) elements.push_back(read(element.value(), depth + 1));
      return elements;
    }
    case ondemand::json_type::string:
      return std::string_view(source.get_string().value());
    case ondemand::json_type::boolean:
      return bool(source.get_bool().value());
    case ondemand::json_type::number: {
      simdjson::simdjson_result<std::string_view> token = source.raw_json_token();
      return number(token.value());
    }
    case ondemand::json_type::null:
      if (source.is_null().value()) return {};
  }
  throw simdjson::simdjson_error(simdjson::TAPE_ERROR);
}

// For each byte of a text the letter of its escape: 'u' where only its code will do, 0 where it may
// stand as it is.
constexpr auto escapes = [] {
  std::array<char, 256> letters{};
  std::fill_n(letters.begin(), 0x20, 'u');
  constexpr std::string_view pairs = "\"\"\\\\//\bb\ff\nn\rr\tt";
  for (std::size_t i = 0; i < pairs.size(); i += 2)
    letters[static_cast<unsigned char>(pairs[i])] = pairs[i + 1];
  return letters;
}();

void write(std::string& out, std::string_view text) {
  constexpr std::string_view hex = "0123456789abcdef";
  if (!isValidUTF8(text)) throwError(EncodingError{});
  const auto letter = [](char c) { return escapes[static_cast<unsigned char>(c)]; };
  out += '"';
  for (auto rest = text.begin();;) {
    const auto next = std::find_if(rest, text.end(), letter);
    out.append(rest, next);
    if (next == text.end()) break;
    out += {'\\', letter(*next)};
    if (const auto code = static_cast<unsigned char>(*next); letter(*next) == 'u')
      out += {'0', '0', hex[code >> 4], hex[code & 15]};
    rest = next + 1;
  }
  out += '"';
}

void write(std::string& out, const JSONValue& value) {
  // Writes `items` between `brackets` and separated by commas.
  const auto list = [&](std::string_view brackets, const auto& items, const auto& writeItem) {
    out += brackets.front();
    bool first = true;
    for (const auto& item : items) {
      if (!std::exchange(first, false)) out += ',';
      writeItem(item);
    }
    out += brackets.back();
  };
  if (value.isNull()) {
    out += "null";
  } else if (const auto* flag = value.as<bool>()) {
    out += *flag ? "true" : "false";
  } else if (const auto* digits = value.as<JSONValue::Number>()) {
    if (digits->text.empty()) throwError(EncodingError{});
    out += digits->text;
  } else if (const auto* text = value.as<std::string>()) {
    write(out, std::string_view(*text));
  } else if (const auto* array = value.as<JSONValue::Array>()) {
    list("[]", *array, [&](const JSONValue& item) { write(out, item); });
  } else if (const auto* object = value.as<JSONValue::Object>()) {
    list("{}", *object, [&](const auto& entry) {
      write(out, std::string_view(entry.first));
      out += ':';
      write(out, entry.second);
    });
  }
}

}  // namespace

std::string DecodingError::errorDescription() const {
  return kind == Kind::dataCorrupted || kind == Kind::typeMismatch
             ? "The data couldn’t be read because it isn’t in the correct format."
             : "The data couldn’t be read because it is missing.";
}

std::string EncodingError::errorDescription() const {
  return "The data couldn’t be written because it isn’t in the correct format.";
}

JSONValue::JSONValue(double value) : value_(Number{}) {
  if (!std::isfinite(value)) return;
  const double size = std::abs(value);
  const auto form = size == 0 || (size >= 1e-4 && size <= exactIntegers)
                        ? std::chars_format::fixed
                        : std::chars_format::scientific;
  std::array<char, 32> text;
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value, form).ptr;
  value_ = Number{std::string(text.data(), end)};
}

const JSONValue* JSONValue::find(std::string_view key) const noexcept {
  const auto* object = as<Object>();
  if (!object) return nullptr;
  const auto entry = std::ranges::find(*object, key, &Object::value_type::first);
  return entry == object->end() ? nullptr : &entry->second;
}

Result<JSONValue> parseJSON(std::string_view text) {
  try {
    // Read as the one element of an array: where a literal stands alone, simdjson takes "falsey"
    // for one, and "null " for none.
    std::string array;
    array.reserve(text.size() + 2 + simdjson::SIMDJSON_PADDING);
    array.append("[").append(text).append("]");
    ondemand::parser parser;
    ondemand::document document = parser.iterate(array).value();
    std::optional<JSONValue> value;
    for (auto element : document.get_array()) {
      if (value) throw simdjson::simdjson_error(simdjson::TRAILING_CONTENT);
      value = read(element.value(), 1);
    }
    if (!value || document.current_location().error() != simdjson::OUT_OF_BOUNDS) {
      throw simdjson::simdjson_error(simdjson::TRAILING_CONTENT);
    }
    return *std::move(value);
  } catch (const simdjson::simdjson_error&) {
    return DecodingError(DecodingError::Kind::dataCorrupted);
  }
}

Result<std::string> serializeJSON(const JSONValue& value) {
  try {
    std::string text;
    text.reserve(usualSize);
    write(text, value);
    return text;
  } catch (const Error& error) {
    return error;
  }
}

}  // namespace quorva::platform
