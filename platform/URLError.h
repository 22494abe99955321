// What can go wrong between this machine and a server.

#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "Export.h"

namespace quorva::platform {

/// A failure of the transport, or of a URL.
///
/// The codes are those that phones' systems use, so that dashboards can tell failures apart across
/// platforms.
struct QUORVA_EXPORT URLError {
  static constexpr std::string_view errorDomain = "URLError";

  enum class Code {
    badURL = -1000,
    timedOut = -1001,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    httpTooManyRedirects = -1007,
    notConnectedToInternet = -1009,
    badServerResponse = -1011,
    cannotParseResponse = -1017,
    insecureConnection = -1022,
    dataLengthExceedsMaximum = -1103,
    secureConnectionFailed = -1200,
    serverCertificateHasBadDate = -1201,
    serverCertificateUntrusted = -1202,
    serverCertificateHasUnknownRoot = -1203,
    serverCertificateNotYetValid = -1204,
  };

  URLError(Code errorCode, std::string cause = {})
      : code(errorCode), underlying(std::move(cause)) {}

  Code code;
  /// What the HTTP library said of it, in English; empty where it had nothing to say.
  std::string underlying;

  [[nodiscard]] std::string errorDescription() const;
};

}  // namespace quorva::platform
