#include "platform/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace quorva::platform {
namespace {

using namespace std::string_view_literals;

// U+0009 to U+000D, U+0020, U+0085, U+00A0, U+1680, U+2000 to U+200A, U+2028, U+2029, U+202F,
// U+205F, U+3000. No encoding of one is the end of another character's, so they can be taken off as
// bytes.
constexpr std::array whitespace{
    "\t"sv,           "\n"sv,           "\v"sv,
    "\f"sv,           "\r"sv,           " "sv,
    "\xC2\x85"sv,     "\xC2\xA0"sv,     "\xE1\x9A\x80"sv,
    "\xE2\x80\x80"sv, "\xE2\x80\x81"sv, "\xE2\x80\x82"sv,
    "\xE2\x80\x83"sv, "\xE2\x80\x84"sv, "\xE2\x80\x85"sv,
    "\xE2\x80\x86"sv, "\xE2\x80\x87"sv, "\xE2\x80\x88"sv,
    "\xE2\x80\x89"sv, "\xE2\x80\x8A"sv, "\xE2\x80\xA8"sv,
    "\xE2\x80\xA9"sv, "\xE2\x80\xAF"sv, "\xE2\x81\x9F"sv,
    "\xE3\x80\x80"sv,
};

// The length of the white space for which `matches` holds, 0 where there is none.
template <class Matches>
std::size_t spaceLength(Matches matches) {
  const auto space = std::ranges::find_if(whitespace, matches);
  return space == whitespace.end() ? 0 : space->size();
}

}  // namespace

std::string trimmed(std::string_view text) {
  const auto leading = [&] {
    return spaceLength([&](auto space) { return text.starts_with(space); });
  };
  const auto trailing = [&] {
    return spaceLength([&](auto space) { return text.ends_with(space); });
  };
  while (const auto length = leading()) text.remove_prefix(length);
  while (const auto length = trailing()) text.remove_suffix(length);
  return std::string(text);
}

bool isValidUTF8(std::string_view text) {
  const auto byte = [&](std::size_t at) {
    return at < text.size() ? unsigned{static_cast<unsigned char>(text[at])} : 0U;
  };
  for (std::size_t at = 0; at < text.size();) {
    // Eight characters of ASCII at once, since nearly all are.
    if (std::uint64_t eight = 0; text.size() - at >= sizeof eight) {
      std::memcpy(&eight, text.data() + at, sizeof eight);
      if (!(eight & 0x8080808080808080)) {
        at += sizeof eight;
        continue;
      }
    }
    const unsigned lead = byte(at++);
    if (lead < 0x80) continue;
    if (lead < 0xC2 || lead > 0xF4) return false;
    // The second byte's range leaves out what is too long, a surrogate, or beyond U+10FFFF.
    unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    for (int left = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3; left > 0; --left) {
      const unsigned next = byte(at++);
      if (next < lowest || next > highest) return false;
      lowest = 0x80;
      highest = 0xBF;
    }
  }
  return true;
}

}  // namespace quorva::platform
