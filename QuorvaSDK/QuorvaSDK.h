// QuorvaSDK: short links and deep links for an application.
//
//     const QVConfiguration config("qk_...", /*debug=*/true, std::make_shared<Links>());
//     Quorva::initialize(config);
//     Quorva::createDynamicLink(link, [](auto shortLink, auto error) { ... });
//
// Threads: call everything on the application's thread, and have it empty the MainQueue, through
// which all answers come. Lifetimes: no thread runs and no file is opened before the first call,
// nothing has to be shut down, and the process may exit at any moment. After fork(), only exec() is
// supported.

#pragma once

#include <functional>
#include <optional>
#include <string>

#include "PlatformTypes.h"
#include "QVConfiguration.h"
#include "QVDynamicLinkBehaviour.h"
#include "QVDynamicLinkBuilder.h"
#include "QuorvaError.h"
#include "ResolvedLink.h"

extern "C" {
/// The library's version, 1.0.
QUORVA_EXPORT extern const double QuorvaSDKVersionNumber;
/// The same in words, for what(1) and its like, with a line feed at its end.
QUORVA_EXPORT extern const unsigned char QuorvaSDKVersionString[];
}

namespace quorva {

/// The library's entry points. There are no instances.
class QUORVA_EXPORT Quorva {
 public:
  Quorva() = delete;

  /// Starts the library: stores the key, has the service name this installation if it hasn't yet,
  /// and announces the device. The delegate hears how it went. A blank key is logged and changes
  /// nothing but the delegate.
  ///
  /// May be called again: the new key, delegate and debug switch replace the old, though debugging,
  /// once on, stays on. On another thread than the application's it says so on standard error and
  /// does its work from the MainQueue.
  static void initialize(QVConfiguration config);

  /// Asks the service where a link leads that opened the application, and returns at once. The
  /// delegate hears of the destination, or of `link` and invalidResponse: what went wrong is only
  /// logged. Every URL is sent, of whatever scheme and host; that works with what an earlier launch
  /// stored, initialized or not. May be called on any thread.
  static void handleLink(URL link);

  /// Receives either the short link or the error.
  using Completion =
      std::function<void(std::optional<std::string> shortLink, std::optional<Error> error)>;

  /// Has the service make a short link, and returns at once. `completion` is called exactly once,
  /// later, on the application's thread. Works with what an earlier launch stored, initialized or
  /// not. May be called on any thread.
  ///
  /// Errors: a QuorvaError (missingKeys, invalidAPIKey, duplicatePath, badRequest; invalidResponse
  /// for an answer without a link), or a URLError or DecodingError as it came.
  static void createDynamicLink(QVDynamicLinkBuilder link, Completion completion);

  /// As above, for coroutines: yields the short link, absent where the service's answer has none,
  /// or throws the Error. Fails with notInitialized before any `initialize`.
  [[nodiscard]] static Task<std::optional<std::string>> createDynamicLink(
      QVDynamicLinkBuilder link);

  /// Asks the service where a short link leads. White space and line breaks at the ends of `link`
  /// are left out.
  ///
  /// Errors: a QuorvaError (invalidURL for a text that is no URL; notInitialized before any
  /// `initialize`; invalidAPIKey, or invalidResponse while the installation has no identifier), or
  /// a URLError or DecodingError as it came; a link that the service doesn't know is the URLError
  /// badServerResponse.
  [[nodiscard]] static Task<ResolvedLink> resolveDynamicLink(std::string link);
};

}  // namespace quorva
