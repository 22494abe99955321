// The service's endpoints. QUORVA_BASE_URL is set, and checked, when the library is configured.

#pragma once

#include <string_view>

namespace quorva {

struct QVUrls {
  static constexpr std::string_view baseUrl = QUORVA_BASE_URL;
  static constexpr std::string_view retrieveDeviceIdUrl = QUORVA_BASE_URL "api/v1/retrieveDeviceId";
  static constexpr std::string_view devicePingUrl = QUORVA_BASE_URL "api/v1/device_ping";
  static constexpr std::string_view deferredDeeplinksUrl =
      QUORVA_BASE_URL "api/v1/getAnyDeferredDeeplinks";
  static constexpr std::string_view resolveUrl = QUORVA_BASE_URL "api/v1/resolve";
  static constexpr std::string_view createLinkUrl = QUORVA_BASE_URL "api/v1/create_link";
};

}  // namespace quorva
