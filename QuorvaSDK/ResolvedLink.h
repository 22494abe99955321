// What a short link was resolved to.

#pragma once

#include <optional>
#include <utility>

#include "PlatformTypes.h"

namespace quorva {

/// A short link and where it leads: a value, to be kept or passed on as JSON. Any thread.
class QUORVA_EXPORT ResolvedLink {
 public:
  /// Where the link leads; absent where the service named no destination, or one that is no URL.
  [[nodiscard]] const std::optional<URL>& link() const { return fields_.link; }
  /// The short link itself; always there when the library resolved it.
  [[nodiscard]] const std::optional<URL>& originalURL() const { return fields_.originalURL; }

  /// {"link": "...", "originalURL": "..."}, without what is absent. For JSONEncoder.
  [[nodiscard]] JSONValue toJSON() const;
  /// Reads such an object. For JSONDecoder.
  [[nodiscard]] static Result<ResolvedLink> fromJSON(const JSONValue& json);

  /// Whether both URLs are the same.
  friend bool operator==(const ResolvedLink&, const ResolvedLink&) = default;

 private:
  friend class Quorva;

  struct Fields {
    std::optional<URL> link;
    std::optional<URL> originalURL;

    static auto codingKeys();
    friend bool operator==(const Fields&, const Fields&) = default;
  };

  explicit ResolvedLink(Fields fields) : fields_(std::move(fields)) {}

  Fields fields_;
};

}  // namespace quorva
