// Short links as text, and where they lead a browser.
//
// Pure functions; any thread.

#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace localservice {

struct ShortLink {
  std::string domain;  // with a port, where it isn't the scheme's own
  std::string path;    // without the slash that it begins with, and decoded
  std::string query;   // as it is in the text, without its mark

  friend bool operator==(const ShortLink&, const ShortLink&) = default;
};

/// https://domain/path, with the query if there is one; none if no URL can be made of them.
[[nodiscard]] std::optional<std::string> write(const ShortLink& link);

/// What a URL of any scheme names; none if it is none, or has no host.
[[nodiscard]] std::optional<ShortLink> read(const std::string& url);

/// The UTM parameters in a link's description, without empty ones.
[[nodiscard]] std::map<std::string, std::string> campaign(const nlohmann::json& description);

/// The destination in a link's description, with its UTM parameters added; none if it isn't for a
/// browser: no http or https URL.
[[nodiscard]] std::optional<std::string> landingURL(const nlohmann::json& description);

}  // namespace localservice
