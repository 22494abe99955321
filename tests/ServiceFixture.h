// Tests of the library against a service that answers as told.

#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "QuorvaSDK/LocalService.h"
#include "QuorvaSDK/QVUrls.h"
#include "QuorvaSDK/QuorvaSDK.h"
#include "QuorvaSDK/StorageKeys.h"
#include "tests/ScriptedServer.h"
#include "tests/Support.h"

namespace quorva::test {

/// A fresh installation whose requests go to `server`, which answers each well until it is told
/// otherwise.
class ServiceFixture : public testing::Test {
 protected:
  ServiceFixture() {
    StorageKeys::apiKey.set(std::nullopt);
    StorageKeys::anonymousId.set(std::nullopt);
    answer("retrieveDeviceId", 200, R"({"uuid":"u-1"})");
    answer("device_ping", 200, "{}");
    answer("create_link", 201, R"({"short_url":"https://go/x"})");
    answer("resolve", 200, R"({"destination_url":"https://d"})");
    answer("getAnyDeferredDeeplinks", 200, "{}");
    useLocalService(server.port(), caFile);
  }

  /// Has requests to `path` below api/v1/ answered with `reply` from now on.
  void answer(const std::string& path, Reply reply) {
    const std::scoped_lock lock(mutex_);
    replies_.insert_or_assign("/app/api/v1/" + path, std::move(reply));
  }
  void answer(const std::string& path, int status, std::string_view body) {
    answer(path, Reply::json(status, body));
  }

  /// The requests to `path` so far.
  std::vector<ReceivedRequest> sent(const std::string& path) const {
    auto requests = server.requests();
    std::erase_if(requests,
                  [&](const auto& request) { return request.target != "/app/api/v1/" + path; });
    return requests;
  }

  static void store(std::optional<std::string> key, std::optional<std::string> identifier) {
    StorageKeys::apiKey.set(std::move(key));
    StorageKeys::anonymousId.set(std::move(identifier));
  }

  /// In words, for tables: "QuorvaError 4", "URLError -1011", "DecodingError 0".
  static std::string kind(const Error& error) {
    if (const auto* own = error.as<QuorvaError>())
      return "QuorvaError " + std::to_string(int(own->which));
    if (const auto* url = error.as<URLError>()) return "URLError " + std::to_string(int(url->code));
    if (const auto* decoding = error.as<DecodingError>()) {
      return "DecodingError " + std::to_string(int(decoding->kind));
    }
    return error.localizedDescription();
  }
  static std::string kind(QuorvaError::Case which) { return kind(Error(QuorvaError(which))); }
  static std::string kind(URLError::Code code) { return kind(Error(URLError(code))); }
  static std::string kind(DecodingError::Kind which) { return kind(Error(DecodingError(which))); }

  static const localservice::CertificateAuthority& authority() {
    static const auto authority = localservice::CertificateAuthority::create();
    return authority;
  }
  static std::string serviceHost() { return URL::parse(QVUrls::baseUrl).value().host(); }

 private:
  std::mutex mutex_;
  std::map<std::string, Reply> replies_;
  const TemporaryDirectory directory_;

 protected:
  const std::filesystem::path caFile = [this] {
    writeFile(directory_.path() / "ca.pem", authority().certificatePEM());
    return directory_.path() / "ca.pem";
  }();
  const localservice::Identity identity = authority().issue({serviceHost()});
  ScriptedServer server{identity, [this](const ReceivedRequest& request) {
                          const std::scoped_lock lock(mutex_);
                          const auto found = replies_.find(request.target);
                          return found == replies_.end() ? Reply::json(404, "{}") : found->second;
                        }};
};

}  // namespace quorva::test
