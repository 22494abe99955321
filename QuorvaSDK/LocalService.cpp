#include "QuorvaSDK/LocalService.h"

#include <utility>

#include "QuorvaSDK/QVUrls.h"
#include "platform/URLSession.h"

namespace quorva {

void useLocalService(std::uint16_t port, std::filesystem::path certificateAuthority) {
  if (const auto service = URL::parse(QVUrls::baseUrl)) {
    platform::URLSession::route(service->host(), {port, std::move(certificateAuthority)});
  }
}

}  // namespace quorva
