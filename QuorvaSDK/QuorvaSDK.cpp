#include "QuorvaSDK/QuorvaSDK.h"

#include <chrono>
#include <utility>

#include "QuorvaSDK/QVLogger.h"
#include "QuorvaSDK/QVNetworkManager.h"
#include "QuorvaSDK/StorageKeys.h"
#include "platform/Text.h"

const double QuorvaSDKVersionNumber = 1.0;
const unsigned char QuorvaSDKVersionString[] = "@(#)PROGRAM:QuorvaSDK  PROJECT:QuorvaSDK-1\n";

namespace quorva {
namespace {

// What an initialization leaves. The library is initialized exactly when there is one.
struct Instance {
  std::shared_ptr<QuorvaDelegate> delegate;
};

// Never destroyed: the delegate may be in use while the process exits.
std::unique_ptr<Instance>& shared() {
  static auto& instance = *new std::unique_ptr<Instance>;
  return instance;
}

// Calls the delegate that is the current one now, which stays alive for the call even if it's
// replaced in it.
template <class... Parameters, class... Arguments>
void tellDelegate(void (QuorvaDelegate::*callback)(Parameters...), const Arguments&... arguments) {
  const auto delegate = shared() ? shared()->delegate : nullptr;
  if (delegate) (*delegate.*callback)(arguments...);
}

// Has the host do `first`, and then does `rest`, even if the host throws.
template <class First, class Rest>
void inTurn(const First& first, const Rest& rest) {
  try {
    first();
  } catch (...) {
    rest();
    throw;
  }
  rest();
}

Metadata metadata(bool isDeferred, std::string originalURL) {
  return {{"isDeferred", isDeferred},
          {"originalURL", std::move(originalURL)},
          {"resolvedAt", std::chrono::system_clock::now()}};
}

// The URL that a text is, where there is one.
std::optional<URL> parsed(const std::optional<std::string>& text) {
  return text ? URL::parse(*text) : std::nullopt;
}

void getDeferredDeepLink() {
  start(QVNetworkManager::getAnyDeferredDeeplinks(),
        [](const Result<DeferredDeeplinkResponse>& answer) {
          if (!answer) {
            const Error& error = answer.error();
            return inTurn(
                [&] {
                  tellDelegate(&QuorvaDelegate::quorvaDidFailToResolveDeepLink, std::nullopt,
                               error);
                },
                [&] {
                  QVLogger::log(LogLevel::error,
                                "Quorva DeepLink fetch failed: " + error.localizedDescription(),
                                "getDeferredDeepLink()");
                });
          }
          const auto destination = parsed(answer->destinationUrl);
          if (!answer->matchFound.value_or(false) || !destination) return;
          tellDelegate(&QuorvaDelegate::quorvaDidResolveDeepLink, *destination,
                       metadata(true, answer->originalUrl.value_or("")));
        });
}

// The question is asked once per installation, whatever becomes of it.
void checkFirstLaunch() {
  if (!StorageKeys::firstLaunch.get()) return;
  MainQueue::post(getDeferredDeepLink);
  StorageKeys::firstLaunch.set(false);
}

void finishInitialization(const QVConfiguration& config) {
  QVNetworkManager::devicePing();
  inTurn([&] { tellDelegate(&QuorvaDelegate::quorvaDidInitialize, config); },
         [] {
           QVLogger::log(LogLevel::success, "Quorva SDK Intialized!", "initialize(config:)");
           checkFirstLaunch();
         });
}

}  // namespace

void Quorva::initialize(QVConfiguration config) {
  if (!MainQueue::isCurrent("Quorva::initialize")) {
    return MainQueue::post([config = std::move(config)] { initialize(config); });
  }
  auto instance = std::make_unique<Instance>();
  if (config.isDebugEnabled) {
    QVLogger::isConsoleEnabled = true;
    QVLogger::isSystemLogEnabled = false;
  }
  instance->delegate = config.delegate;
  // Swapped first: the old delegate's destructor is the host's, and may call back.
  std::swap(shared(), instance);
  instance.reset();

  if (platform::trimmed(config.apiKey).empty()) {
    const QuorvaError error(QuorvaError::invalidAPIKey);
    return QVLogger::log(LogLevel::error, error.errorDescription(), "initialize(config:)");
  }
  StorageKeys::apiKey.set(config.apiKey);
  if (StorageKeys::anonymousId.get()) return finishInitialization(config);

  start(QVNetworkManager::retrieveDeviceId(config.apiKey),
        [config](const Result<std::optional<std::string>>& identifier) {
          if (!identifier) {
            const Error& error = identifier.error();
            return inTurn([&] { tellDelegate(&QuorvaDelegate::quorvaDidFailToInitialize, error); },
                          [&] {
                            QVLogger::log(LogLevel::error, error.localizedDescription(),
                                          "initialize(config:)");
                          });
          }
          StorageKeys::anonymousId.set(*identifier);
          finishInitialization(config);
        });
}

void Quorva::handleLink(URL link) {
  const auto report = [link](const Result<std::optional<std::string>>& answer) {
    if (!answer) {
      QVLogger::log(LogLevel::error,
                    "Failed to Handle Link - " + answer.error().localizedDescription(),
                    "handleLink(_:)");
    }
    if (const auto destination = answer ? parsed(*answer) : std::nullopt) {
      return tellDelegate(&QuorvaDelegate::quorvaDidResolveDeepLink, *destination,
                          metadata(false, link.absoluteString()));
    }
    tellDelegate(&QuorvaDelegate::quorvaDidFailToResolveDeepLink, link,
                 Error(QuorvaError(QuorvaError::invalidResponse)));
  };
  // In its turn, so that a link handed over just before `initialize` goes with what that stores.
  MainQueue::post([link, report] { start(QVNetworkManager::resolveLink(link), report); });
}

void Quorva::createDynamicLink(QVDynamicLinkBuilder link, Completion completion) {
  start(QVNetworkManager::createLink(std::move(link)),
        [completion = std::move(completion)](const Result<CreateDynaminLinkResponse>& answer) {
          if (!answer) {
            QVLogger::log(LogLevel::error,
                          "Failed to create Link - " + answer.error().localizedDescription(),
                          "createDynamicLink(for:completion:)");
          }
          if (!completion) return;
          if (!answer) return completion(std::nullopt, answer.error());
          if (!answer->shortURL)
            return completion(std::nullopt, QuorvaError(QuorvaError::invalidResponse));
          completion(answer->shortURL, std::nullopt);
        });
}

Task<std::optional<std::string>> Quorva::createDynamicLink(QVDynamicLinkBuilder link) {
  if (!shared()) throw Error(QuorvaError(QuorvaError::notInitialized));
  const Result<CreateDynaminLinkResponse> answer =
      co_await QVNetworkManager::createLink(std::move(link)).result();
  if (!answer) {
    QVLogger::log(LogLevel::error,
                  "Failed to create dynamic link: " + answer.error().localizedDescription(),
                  "createDynamicLink(for:)");
    throw answer.error();
  }
  QVLogger::log(LogLevel::success, "Successfully created dynamic link", "createDynamicLink(for:)");
  co_return answer->shortURL;
}

Task<ResolvedLink> Quorva::resolveDynamicLink(std::string link) {
  const auto url = URL::parse(platform::trimmed(link));
  if (!url) throw Error(QuorvaError(QuorvaError::invalidURL));
  if (!shared()) throw Error(QuorvaError(QuorvaError::notInitialized));
  const Result<std::optional<std::string>> destination =
      co_await QVNetworkManager::resolveLink(*url).result();
  if (!destination) {
    QVLogger::log(LogLevel::error,
                  "Failed to resolve dynamic link: " + destination.error().localizedDescription(),
                  "resolveDynamicLink(from:)");
    throw destination.error();
  }
  QVLogger::log(LogLevel::success, "Successfully resolved dynamic link: " + link,
                "resolveDynamicLink(from:)");
  co_return ResolvedLink({parsed(*destination), *url});
}

}  // namespace quorva
