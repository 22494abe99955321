#include "QuorvaSDK/QuorvaError.h"

#include <utility>

namespace quorva {
namespace {

std::string joined(const std::vector<std::string>& keys) {
  std::string text;
  for (std::size_t i = 0; i < keys.size(); ++i) text += (i == 0 ? "" : ", ") + keys[i];
  return text;
}

}  // namespace

QuorvaError QuorvaError::missing(std::vector<std::string> keys) {
  QuorvaError error(missingKeys);
  error.keys = std::move(keys);
  return error;
}

QuorvaError QuorvaError::network(Error underlying) {
  QuorvaError error(networkError);
  error.underlying = std::move(underlying);
  return error;
}

QuorvaError QuorvaError::server(std::int64_t statusCode) {
  QuorvaError error(serverError);
  error.statusCode = statusCode;
  return error;
}

std::string QuorvaError::errorDescription() const {
  switch (which) {
    case missingKeys:
      return "Required Keys are missing - " + joined(keys);
    case networkError:
      return "Network error: " + (underlying ? underlying->localizedDescription() : "");
    case serverError:
      return "Server error with status code: " + std::to_string(statusCode);
    case badRequest:
      return "The request was malformed or invalid.";
    case duplicatePath:
      return "Selected Path already exist!";
    case invalidAPIKey:
      return "Failed to initialize Quorva with a valid API key";
    case invalidURL:
      return "Invalid URL configuration";
    case invalidResponse:
      return "Invalid response from server";
    case notInitialized:
      // Translators: Initialization error
      return platform::localizedString("SDK has not been initialized");
  }
  return {};
}

}  // namespace quorva
