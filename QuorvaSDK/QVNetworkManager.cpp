#include "QuorvaSDK/QVNetworkManager.h"

#include <string_view>
#include <utility>

#include "QuorvaSDK/Encodable+Extensions.h"
#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QVUrls.h"
#include "QuorvaSDK/QuorvaError.h"
#include "QuorvaSDK/StorageKeys.h"
#include "QuorvaSDK/UIDevice+Extensions.h"
#include "platform/URLSession.h"

namespace quorva {
namespace {

using platform::HTTPResponse;
using platform::URLRequest;
using platform::URLSession;

template <class T>
using Call = QVNetworkManager::Call<T>;

// Parsed once, and kept for good: calls may be under way while the process exits.
template <const std::string_view& text>
const URL& endpoint() {
  static const auto& url = *new std::optional<URL>(URL::parse(text));
  if (!url) throw Error(URLError(URLError::Code::badURL));
  return *url;
}

Call<HTTPResponse> send(URL url, JSONValue::Object body) {
  URLRequest request(std::move(url));
  request.headers = {"Content-Type: application/json"};
  request.body = platform::serializeJSON(std::move(body)).value();
  co_return co_await URLSession::post(std::move(request));
}

// A status that a call knows besides success, and what the refusal that comes with it means.
struct SpecialStatus {
  int status;
  QuorvaError::Case (*meaning)(const ErrorResponse&);
};

constexpr SpecialStatus refusedKey{401,
                                   [](const ErrorResponse&) { return QuorvaError::invalidAPIKey; }};

constexpr SpecialStatus refusedLink{
    400, [](const ErrorResponse& refusal) {
      const bool exists =
          refusal.detail && refusal.detail->find("already exists") != std::string::npos;
      return exists ? QuorvaError::duplicatePath : QuorvaError::badRequest;
    }};

QuorvaError meaning(const std::string& body, const SpecialStatus& special) {
  try {
    return QuorvaError(special.meaning(platform::decodeText<ErrorResponse>(body)));
  } catch (const Error&) {
    return QuorvaError(QuorvaError::badRequest);
  }
}

// The record that an answer holds. The status alone decides what is looked for in the body.
template <platform::Record T>
T classify(const HTTPResponse& response, const SpecialStatus* special = nullptr) {
  if (response.statusCode >= 200 && response.statusCode <= 299)
    return platform::decodeText<T>(response.body);
  if (special && response.statusCode == special->status)
    throw Error(meaning(response.body, *special));
  throw Error(URLError(URLError::Code::badServerResponse));
}

// Who asks, in the calls about links that were tapped.
JSONValue::Object storedInstallation() {
  const auto apiKey = StorageKeys::apiKey.get();
  if (!apiKey) throw Error(QuorvaError(QuorvaError::invalidAPIKey));
  const auto identifier = StorageKeys::anonymousId.get();
  if (!identifier) throw Error(QuorvaError(QuorvaError::invalidResponse));
  return {{"api_key", *apiKey}, {"device_uuid", *identifier}};
}

Call<JSONValue::Object> pingBody() {
  const std::string systemVersion = co_await onMainThread(&Device::systemVersion);
  const std::string model = co_await onMainThread(&Device::model);
  const std::string product = co_await onMainThread(&modelIdentifier);
  const std::string name = co_await onMainThread(&Device::name);
  JSONValue::Object device{
      {"os_version", systemVersion},
      {"manufacturer", "Apple"},
      {"model", model},
      {"brand", "Apple"},
      {"product", product},
      {"device", name},
  };
  JSONValue::Object body{
      {"api_key", StorageKeys::apiKey.get().value_or("")},
      {"device_id", StorageKeys::anonymousId.get().value_or("")},
      {"device_info", std::move(device)},
      {"platform", "ios"},
      {"lib", "quorva-ios"},
      {"lib_version", sdkVersion},
  };
  co_return body;
}

Call<void> ping() {
  JSONValue::Object body = co_await pingBody();
  const auto url = URL::parse(QVUrls::devicePingUrl);
  if (!url) co_return;
  const Result<HTTPResponse> reply = co_await send(*url, std::move(body)).result();
  if (reply) {
    QVLogger::log(LogLevel::success, "SDK ping successful", "devicePing()");
  } else {
    QVLogger::log(LogLevel::error, "SDK ping failed: " + reply.error().localizedDescription(),
                  "devicePing()");
  }
}

}  // namespace

void QVNetworkManager::devicePing() {
  platform::detach(ping());
}

Call<std::optional<std::string>> QVNetworkManager::retrieveDeviceId(std::string apiKey) {
  JSONValue::Object description = co_await deviceDescription();
  JSONValue::Object body{
      {"data", std::move(description)},
      {"api_key", std::move(apiKey)},
      {"ref_id", ""},
  };
  const HTTPResponse response =
      co_await send(endpoint<QVUrls::retrieveDeviceIdUrl>(), std::move(body));
  co_return classify<IdentityResponse>(response, &refusedKey).uuid;
}

Call<CreateDynaminLinkResponse> QVNetworkManager::createLink(QVDynamicLinkBuilder builder) {
  if (!StorageKeys::apiKey.get()) throw Error(QuorvaError(QuorvaError::invalidAPIKey));
  if (!StorageKeys::anonymousId.get()) throw Error(QuorvaError::missing({"anonymousId"}));
  URL url = endpoint<QVUrls::createLinkUrl>();
  std::vector<std::string> empty = emptyRequiredFields(builder);
  if (!empty.empty()) throw Error(QuorvaError::missing(std::move(empty)));
  JSONValue::Object body = toDictionary(builder).value_or(JSONValue::Object());
  const HTTPResponse response = co_await send(std::move(url), std::move(body));
  co_return classify<CreateDynaminLinkResponse>(response, &refusedLink);
}

Call<std::optional<std::string>> QVNetworkManager::resolveLink(URL link) {
  JSONValue::Object body = storedInstallation();
  body.emplace_back("short_url", link.absoluteString());
  const HTTPResponse response = co_await send(endpoint<QVUrls::resolveUrl>(), std::move(body));
  co_return classify<ResolvedDeeplinkResponse>(response).destinationUrl;
}

Call<DeferredDeeplinkResponse> QVNetworkManager::getAnyDeferredDeeplinks() {
  URL url = endpoint<QVUrls::deferredDeeplinksUrl>();
  JSONValue::Object body = storedInstallation();
  const HTTPResponse response = co_await send(std::move(url), std::move(body));
  co_return classify<DeferredDeeplinkResponse>(response);
}

}  // namespace quorva
