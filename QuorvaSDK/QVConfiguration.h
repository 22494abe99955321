// How the library is to run, and who hears of what it does unasked.

#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "PlatformTypes.h"

namespace quorva {

struct QVConfiguration;

/// What comes with a resolved link: always "isDeferred" (bool: tapped before the application was
/// installed), "originalURL" (text: the link itself) and "resolvedAt" (Date).
using Metadata = std::map<std::string, std::variant<bool, std::string, Date>>;

/// The host's side of the library: override what you care about. Every call is made on the
/// application's thread; an exception that leaves one goes on to whoever emptied the queue, or
/// called `Quorva::initialize`, and the library does all the same what it does behind the call.
class QUORVA_EXPORT QuorvaDelegate {
 public:
  QuorvaDelegate() = default;
  QuorvaDelegate(const QuorvaDelegate&) = delete;
  QuorvaDelegate& operator=(const QuorvaDelegate&) = delete;
  virtual ~QuorvaDelegate();

  /// Initialization finished; `config` is as it was passed in. Called before `Quorva::initialize`
  /// returns where the installation already has its identifier.
  virtual void quorvaDidInitialize(const QVConfiguration& config);

  /// The service didn't give this installation its identifier. The next `Quorva::initialize` asks
  /// again.
  virtual void quorvaDidFailToInitialize(const Error& error);

  /// A link leads to `destination`.
  virtual void quorvaDidResolveDeepLink(const URL& destination, const Metadata& metadata);

  /// A link could not be resolved; `link` is absent where there was none yet.
  virtual void quorvaDidFailToResolveDeepLink(const std::optional<URL>& link, const Error& error);
};

/// What `Quorva::initialize` takes. A value; copies share the delegate, and the library keeps it
/// alive.
struct QVConfiguration {
  /// A blank key is found by `Quorva::initialize`, not here.
  QVConfiguration(std::string key, bool debug, std::shared_ptr<QuorvaDelegate> listener)
      : apiKey(std::move(key)), isDebugEnabled(debug), delegate(std::move(listener)) {}

  std::string apiKey;                        ///< as the service issued it
  bool isDebugEnabled;                       ///< true: a line to standard output for each event
  std::shared_ptr<QuorvaDelegate> delegate;  ///< null: nobody is told
};

}  // namespace quorva
