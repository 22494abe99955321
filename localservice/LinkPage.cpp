#include "localservice/LinkPage.h"

#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "localservice/ShortLink.h"

namespace localservice {
namespace {

constexpr int browserBehavior = 1;

struct Tapped {
  Link link;
  std::string query;
};

std::optional<Tapped> find(const Service& service, const Visit& visit) {
  // This service's own host, whose path names the link's.
  const auto opened = read("http://localhost" + visit.target);
  const auto slash = opened ? opened->path.find('/') : std::string::npos;
  if (slash == std::string::npos) return std::nullopt;
  auto link = service.store.findLink(opened->path.substr(0, slash), opened->path.substr(slash + 1));
  return link ? std::optional(Tapped{std::move(*link), opened->query}) : std::nullopt;
}

std::string escaped(std::string_view text) {
  std::string html;
  for (const char c : text) {
    const bool isMarkup = c == '&' || c == '<' || c == '>' || c == '"';
    html += isMarkup ? "&#" + std::to_string(c) + ';' : std::string(1, c);
  }
  return html;
}

std::string document(std::string_view title, std::string_view head, std::string_view body) {
  std::string html =
      "<!doctype html>\n"
      "<html lang=\"en\">\n"
      "<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width\">\n"
      "<style>\n"
      ":root { color-scheme: light dark; }\n"
      "body { font: 1rem/1.5 sans-serif; max-width: 32rem; margin: 2rem auto; padding: 0 1rem;\n"
      "       overflow-wrap: anywhere; }\n"
      "img { max-width: 100%; }\n"
      "</style>\n";
  html.append(head).append("<title>").append(escaped(title)).append("</title>\n<h1>");
  return html.append(escaped(title)).append("</h1>\n").append(body);
}

// What social networks look for.
std::string openGraph(const char* property, const std::string& content) {
  if (content.empty()) return {};
  return "<meta property=\"og:" + std::string(property) + "\" content=\"" + escaped(content) +
         "\">\n";
}

std::string anchor(const std::string& url, const char* label) {
  return "<p><a href=\"" + escaped(url) + "\">" + label + "</a></p>\n";
}

Page linkPage(const Service& service, const Visit& visit, const nlohmann::json& description,
              const std::string& shortURL) {
  const auto text = [&](const char* key) { return description.value(key, ""); };
  const std::string destination = text("destination_url");
  const std::string about = text("social_description");
  const std::string image = text("social_image_url");
  std::string title = text("social_title");
  if (title.empty()) title = text("link_name");
  if (title.empty()) title = shortURL;

  const auto landing = landingURL(description);
  std::string body;
  if (!about.empty()) body += "<p>" + escaped(about) + "</p>\n";
  if (!image.empty()) body += "<p><img src=\"" + escaped(image) + "\" alt=\"\"></p>\n";
  if (!service.appScheme.empty()) {
    body += anchor(service.appScheme + shortURL.substr(shortURL.find(':')), "Open in the app");
  }
  body += landing ? anchor(*landing, "Go on to the destination")
                  : "<p>Leads to " + escaped(destination) + "</p>\n";

  const bool isAndroid = visit.userAgent.find("Android") != std::string::npos;
  const bool inBrowser =
      description.at(isAndroid ? "android_behavior" : "ios_behavior") == browserBehavior;
  return {inBrowser && landing ? 302 : 200,
          document(title,
                   openGraph("title", title) + openGraph("description", about) +
                       openGraph("image", image) + openGraph("url", shortURL),
                   body),
          inBrowser ? landing.value_or("") : ""};
}

Page show(const Service& service, const Visit& visit) {
  const auto tapped = find(service, visit);
  if (!tapped) return {404, document("There is no such link", "", ""), ""};
  const Link& link = tapped->link;
  const std::string shortURL = write({link.domain, link.path, tapped->query}).value_or("");
  if (visit.method == "GET")
    service.store.add(Tap{link.domain, link.path, shortURL, visit.address});
  return linkPage(service, visit, nlohmann::json::parse(link.description), shortURL);
}

}  // namespace

Page visit(const Service& service, const Visit& visit) {
  try {
    return show(service, visit);
  } catch (const std::exception& error) {
    return {500, document(error.what(), "", ""), ""};
  }
}

}  // namespace localservice
