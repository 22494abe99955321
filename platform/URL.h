// URLs as text that is known to be one.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Export.h"

namespace quorva::platform {

/// A URL: the text of an RFC 3986 URI reference. A value; any thread.
class QUORVA_EXPORT URL {
 public:
  /// The URL that `text` is, or none where it is none: the empty text, spaces, control characters,
  /// `"<>\^{|}` and back-tick, a broken percent escape, a host outside ASCII, a port that is no
  /// number.
  ///
  /// Taken as they are: raw `[` and `]` after the authority, since links in use carry them.
  /// Percent-encoded: characters outside ASCII after the authority (RFC 3987). The rest of the text
  /// is kept to the byte.
  [[nodiscard]] static std::optional<URL> parse(std::string_view text);

  /// The URL's full text.
  [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }

  /// The host's name in lower case, as the text spells it; empty where it names none.
  [[nodiscard]] std::string host() const;

  /// Whether the texts are the same, byte by byte.
  friend bool operator==(const URL&, const URL&) = default;

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}

  std::string text_;
};

}  // namespace quorva::platform
