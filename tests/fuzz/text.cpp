// Trimming, of text that needn't be UTF-8.

#include "platform/Text.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva::platform;

void fuzz(std::string_view text) {
  const std::string trimmedText = trimmed(text);
  check(text.find(trimmedText) != text.npos);
  check(trimmed(trimmedText) == trimmedText);
  check(!isValidUTF8(text) || isValidUTF8(trimmedText));
  check(trimmed(" \u2003\n" + std::string(text) + "\u0085\t") == trimmedText);
}
