// What the library itself finds wrong. Failures of the transport, of URLs and of JSON come as they
// are (URLError, DecodingError, EncodingError), not wrapped in this.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PlatformTypes.h"

namespace quorva {

/// One of nine findings. A value.
///
///     const auto* found = error.as<QuorvaError>();
///     if (found && found->which == QuorvaError::duplicatePath) askForAnotherPath();
struct QUORVA_EXPORT QuorvaError {
  /// By which `Error::as` knows it.
  static constexpr std::string_view errorDomain = "QuorvaError";

  /// What is found.
  enum class Case {
    missingKeys,      ///< required fields are empty, or nothing is stored yet: see `keys`
    networkError,     ///< for hosts' own use: see `underlying`
    serverError,      ///< for hosts' own use: see `statusCode`
    badRequest,       ///< the service refused the request
    duplicatePath,    ///< the chosen path is taken
    invalidAPIKey,    ///< the key is blank, was refused, or none is stored
    invalidURL,       ///< a text that is no URL
    invalidResponse,  ///< the service's answer lacks what was asked for
    notInitialized,   ///< `Quorva::initialize` wasn't called in this process
  };
  using enum Case;

  /// A case without a payload.
  explicit QuorvaError(Case found) : which(found) {}

  /// One of missingKeys.
  [[nodiscard]] static QuorvaError missing(std::vector<std::string> keys);
  /// One of networkError, for hosts' own use.
  [[nodiscard]] static QuorvaError network(Error error);
  /// One of serverError, for hosts' own use.
  [[nodiscard]] static QuorvaError server(std::int64_t statusCode);

  Case which;                       ///< of the nine
  std::vector<std::string> keys;    ///< of missingKeys
  std::optional<Error> underlying;  ///< of networkError
  std::int64_t statusCode = 0;      ///< of serverError

  /// The finding in English; `notInitialized` in the application's own translation, if it has one.
  [[nodiscard]] std::string errorDescription() const;
};

}  // namespace quorva
