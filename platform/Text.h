// Unicode text, held as UTF-8.

#pragma once

#include <string>
#include <string_view>

namespace quorva::platform {

/// `text` without the white space and line breaks at its ends: code points of category Z, U+0009 to
/// U+000D and U+0085. Zero-width characters (U+200B, U+FEFF) are no white space and stay.
[[nodiscard]] std::string trimmed(std::string_view text);

[[nodiscard]] bool isValidUTF8(std::string_view text);

}  // namespace quorva::platform
