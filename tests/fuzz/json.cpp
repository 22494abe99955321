// JSON text from anywhere: read as another parser reads it, and written so that it's read again as
// the same.

#include <nlohmann/json.hpp>

#include "platform/JSON.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva::platform;

namespace {

// What the other parser has against `text`: nothing, a number too large for it, or its syntax.
enum class Verdict { sound, tooLarge, broken };

Verdict otherVerdict(std::string_view text) {
  try {
    static_cast<void>(nlohmann::json::parse(text));
    return Verdict::sound;
  } catch (const nlohmann::json::out_of_range&) {
    return Verdict::tooLarge;
  } catch (const nlohmann::json::exception&) {
    return Verdict::broken;
  }
}

}  // namespace

void fuzz(std::string_view text) {
  const Result<JSONValue> value = parseJSON(text);
  // The other parser knows no depth limit, skips a byte order mark, and ends at a zero byte.
  const bool isComparable =
      text.size() < 512 && !text.starts_with("\xEF\xBB\xBF") && text.find('\0') == text.npos;
  if (isComparable) {
    const Verdict other = otherVerdict(text);
    check(other == Verdict::tooLarge || bool(value) == (other == Verdict::sound));
  }
  if (!value) return;
  const std::string written = serializeJSON(*value).value();
  check(parseJSON(written).value() == *value);
}
