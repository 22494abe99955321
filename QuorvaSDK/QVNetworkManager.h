// The service client: every call posts one JSON object to one endpoint and reads one record from
// the answer.
//
// Threads: calls run on the general executor; the ping's and the identity call's device readings
// wait for the application's thread. State: none. Errors: QuorvaError for what the service's
// protocol says, URLError for a status without a meaning and for the transport, DecodingError for a
// good status with a body that isn't the record. Nothing is retried.

#pragma once

#include <optional>
#include <string>

#include "QuorvaSDK/QVDynamicLinkBuilder.h"
#include "QuorvaSDK/ServiceRecords.h"
#include "platform/GeneralExecutor.h"
#include "platform/Task.h"

namespace quorva {

class QVNetworkManager {
 public:
  QVNetworkManager() = delete;

  template <class T>
  using Call = platform::Task<T, platform::GeneralExecutor>;

  /// Tells the service that the library runs here. Returns at once; how it went is only logged.
  static void devicePing();

  /// Asks what the service calls this installation; absent where its answer doesn't say.
  [[nodiscard]] static Call<std::optional<std::string>> retrieveDeviceId(std::string apiKey);

  /// Has the service make a short link.
  [[nodiscard]] static Call<CreateDynaminLinkResponse> createLink(QVDynamicLinkBuilder builder);

  /// Asks where a short link leads; absent where the service's answer doesn't say.
  [[nodiscard]] static Call<std::optional<std::string>> resolveLink(URL link);

  /// Asks whether a link was tapped here before the application was installed.
  [[nodiscard]] static Call<DeferredDeeplinkResponse> getAnyDeferredDeeplinks();
};

}  // namespace quorva
