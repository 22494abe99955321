// What the service answers. Every field may be absent, so that any JSON object is an answer.

#pragma once

#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "platform/Codable.h"

namespace quorva {

/// The answer to a link's creation. The service's own spelling.
struct CreateDynaminLinkResponse {
  std::optional<std::string> status;
  std::optional<std::string> message;
  std::optional<std::string> shortURL;

  static constexpr auto codingKeys() {
    using Self = CreateDynaminLinkResponse;
    return std::tuple{platform::CodingKey{"status", &Self::status},
                      platform::CodingKey{"message", &Self::message},
                      platform::CodingKey{"short_url", &Self::shortURL}};
  }
};

/// Why a request was refused.
struct ErrorResponse {
  std::optional<std::string> message;
  std::optional<std::string> detail;

  static constexpr auto codingKeys() {
    return std::tuple{platform::CodingKey{"message", &ErrorResponse::message},
                      platform::CodingKey{"detail", &ErrorResponse::detail}};
  }
};

/// What the service calls this installation.
struct IdentityResponse {
  std::optional<std::string> uuid;
  std::optional<std::string> status;

  static constexpr auto codingKeys() {
    return std::tuple{platform::CodingKey{"uuid", &IdentityResponse::uuid},
                      platform::CodingKey{"status", &IdentityResponse::status}};
  }
};

/// Where a short link leads.
struct ResolvedDeeplinkResponse {
  std::optional<std::string> destinationUrl;

  static constexpr auto codingKeys() {
    return std::tuple{
        platform::CodingKey{"destination_url", &ResolvedDeeplinkResponse::destinationUrl}};
  }
};

/// Whether a link was tapped here before the application was installed, and which.
struct DeferredDeeplinkResponse {
  std::optional<std::string> originalUrl;
  std::optional<std::string> destinationUrl;
  std::optional<std::string> shortUrl;
  std::optional<std::string> orgId;
  std::optional<std::map<std::string, std::string>> utmParams;
  std::optional<bool> matchFound;
  std::optional<std::string> matchType;

  static constexpr auto codingKeys() {
    using Self = DeferredDeeplinkResponse;
    return std::tuple{platform::CodingKey{"original_url", &Self::originalUrl},
                      platform::CodingKey{"destination_url", &Self::destinationUrl},
                      platform::CodingKey{"short_url", &Self::shortUrl},
                      platform::CodingKey{"org_id", &Self::orgId},
                      platform::CodingKey{"utm_params", &Self::utmParams},
                      platform::CodingKey{"match_found", &Self::matchFound},
                      platform::CodingKey{"match_type", &Self::matchType}};
  }
};

}  // namespace quorva
