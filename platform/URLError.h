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
  /// By which `Error::as` knows it.
  static constexpr std::string_view errorDomain = "URLError";

  /// What happened.
  enum class Code {
    badURL = -1000,                       ///< an address that can't be requested
    timedOut = -1001,                     ///< the server was silent for too long
    cannotFindHost = -1003,               ///< the name can't be looked up
    cannotConnectToHost = -1004,          ///< nobody listens there
    networkConnectionLost = -1005,        ///< it broke on the way
    httpTooManyRedirects = -1007,         ///< more than 20
    notConnectedToInternet = -1009,       ///< the system has no way to the network
    badServerResponse = -1011,            ///< a status without a meaning for the call
    cannotParseResponse = -1017,          ///< no HTTP, or a body that isn't compressed as it says
    insecureConnection = -1022,           ///< a redirect to anything but https
    dataLengthExceedsMaximum = -1103,     ///< an answer above 16 MiB, or headers above 256 KiB
    secureConnectionFailed = -1200,       ///< TLS failed, or is older than 1.2
    serverCertificateHasBadDate = -1201,  ///< it has expired
    serverCertificateUntrusted = -1202,   ///< it is another host's, was revoked, or is broken
    serverCertificateHasUnknownRoot = -1203,  ///< nobody trusted signed it
    serverCertificateNotYetValid = -1204,     ///< its time is yet to come
  };

  /// `cause` as in `underlying`.
  URLError(Code errorCode, std::string cause = {})
      : code(errorCode), underlying(std::move(cause)) {}

  Code code;  ///< one of the above
  /// What the HTTP library said of it, in English; empty where it had nothing to say.
  std::string underlying;

  /// In English, for developers.
  [[nodiscard]] std::string errorDescription() const;
};

}  // namespace quorva::platform
