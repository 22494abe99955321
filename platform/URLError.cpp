#include "platform/URLError.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace quorva::platform {
namespace {

struct Row {
  URLError::Code code;
  std::string_view text;
};

using enum URLError::Code;

constexpr std::array descriptions{
    Row{badURL, "bad URL"},
    Row{timedOut, "The request timed out."},
    Row{cannotFindHost, "A server with the specified hostname could not be found."},
    Row{cannotConnectToHost, "Could not connect to the server."},
    Row{networkConnectionLost, "The network connection was lost."},
    Row{httpTooManyRedirects, "too many HTTP redirects"},
    Row{notConnectedToInternet, "The Internet connection appears to be offline."},
    Row{badServerResponse, "There was a bad response from the server."},
    Row{cannotParseResponse, "cannot parse response"},
    Row{insecureConnection,
        "The resource could not be loaded because it needs a secure connection."},
    Row{dataLengthExceedsMaximum, "resource exceeds maximum size"},
    Row{secureConnectionFailed,
        "An SSL error has occurred and a secure connection to the server cannot be made."},
    Row{serverCertificateHasBadDate, "The certificate for this server has expired."},
    Row{serverCertificateUntrusted, "The certificate for this server is invalid."},
    Row{serverCertificateHasUnknownRoot,
        "The certificate for this server was signed by an unknown certifying authority."},
    Row{serverCertificateNotYetValid, "The certificate for this server is not yet valid."},
};

}  // namespace

std::string URLError::errorDescription() const {
  const auto row = std::ranges::find(descriptions, code, &Row::code);
  return row == descriptions.end() ? "URL error " + std::to_string(static_cast<int>(code))
                                   : std::string(row->text);
}

}  // namespace quorva::platform
