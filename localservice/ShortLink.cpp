#include "localservice/ShortLink.h"

#include <curl/curl.h>

#include <memory>

namespace localservice {
namespace {

// A part of a URL, or the whole; absent if there is none.
std::optional<std::string> get(CURLU& url, CURLUPart part, unsigned flags = 0) {
  char* text = nullptr;
  if (curl_url_get(&url, part, &text, flags) != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  return text;
}

bool set(CURLU& url, CURLUPart part, const std::string& text, unsigned flags = 0) {
  // A zero byte would end the text.
  return text.find('\0') == text.npos && curl_url_set(&url, part, text.c_str(), flags) == CURLUE_OK;
}

using Handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

Handle parse(const std::string& text) {
  constexpr unsigned asItIs = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS | CURLU_URLENCODE;
  Handle url(curl_url(), curl_url_cleanup);
  if (!set(*url, CURLUPART_URL, text, asItIs)) url.reset();
  return url;
}

}  // namespace

std::optional<std::string> write(const ShortLink& link) {
  const Handle url = parse("https://" + link.domain);
  if (!url || !set(*url, CURLUPART_PATH, "/" + link.path, CURLU_URLENCODE)) return std::nullopt;
  if (!link.query.empty() && !set(*url, CURLUPART_QUERY, link.query)) return std::nullopt;
  return get(*url, CURLUPART_URL);
}

std::optional<ShortLink> read(const std::string& text) {
  const Handle url = parse(text);
  if (!url) return std::nullopt;
  const auto host = get(*url, CURLUPART_HOST);
  const auto path = get(*url, CURLUPART_PATH, CURLU_URLDECODE);
  if (!host || !path) return std::nullopt;
  const auto port = get(*url, CURLUPART_PORT, CURLU_NO_DEFAULT_PORT);
  return ShortLink{*host + (port ? ":" + *port : ""), path->substr(1),
                   get(*url, CURLUPART_QUERY).value_or("")};
}

std::map<std::string, std::string> campaign(const nlohmann::json& description) {
  std::map<std::string, std::string> parameters;
  for (const auto* name : {"utm_source", "utm_medium", "utm_campaign", "utm_content", "utm_term"}) {
    const std::string value = description.value(name, "");
    if (!value.empty()) parameters.emplace(name, value);
  }
  return parameters;
}

std::optional<std::string> landingURL(const nlohmann::json& description) {
  const Handle url = parse(description.at("destination_url"));
  const auto scheme = url ? get(*url, CURLUPART_SCHEME) : std::nullopt;
  if (scheme != "http" && scheme != "https") return std::nullopt;
  for (const auto& [name, value] : campaign(description)) {
    set(*url, CURLUPART_QUERY, name + '=' + value, CURLU_APPENDQUERY | CURLU_URLENCODE);
  }
  return get(*url, CURLUPART_URL);
}

}  // namespace localservice
