// Any text as a URL: what is taken for one stays one, to the byte.

#include "platform/URL.h"
#include "platform/Text.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva::platform;

void fuzz(std::string_view text) {
  const auto url = URL::parse(text);
  if (!url) return;
  const std::string& kept = url->absoluteString();
  check(URL::parse(kept) == url);
  check(kept.find_first_of(" \"<>\\^`{|}\x7F") == kept.npos);
  for (const char c : kept) check(c > 0x20 && c < 0x7F);
  check(kept.size() == text.size() || kept.find('%') != kept.npos);
  check(url->host().size() <= kept.size());
}
