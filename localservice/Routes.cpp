#include "localservice/Routes.h"

#include <qrencode.h>

#include <charconv>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "localservice/Page.h"
#include "localservice/ShortLink.h"

namespace localservice {
namespace {

using httplib::Request;
using httplib::Response;
using nlohmann::json;

// How often a page that hears nothing is looked for.
constexpr std::chrono::seconds heartbeat{15};

// How many requests are told at a time: nobody has to take more before the service can end.
constexpr std::size_t batch = 20;

constexpr const char* home = "127.0.0.1";

void give(Response& response, const json& body, int status = 200) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace),
                       "application/json");
}

void refuse(Response& response, int status, const std::string& detail) {
  give(response, {{"detail", detail}}, status);
}

// Names lead elsewhere than they seem to, if somebody wants it so; a page of theirs could read this
// one by such a name.
bool isThisMachine(std::string_view host) {
  const auto colon = host.rfind(':');
  const bool hasPort = colon != host.npos && host.find(']', colon) == host.npos;
  const std::string_view name = hasPort ? host.substr(0, colon) : host;
  return name == home || name == "localhost" || name == "[::1]";
}

bool refuseStrangers(const Request& request, Response& response) {
  const std::string host = request.get_header_value("Host");
  const bool acts = request.method != "GET" && request.method != "HEAD";
  if (!isThisMachine(host)) {
    refuse(response, 421, "Only localhost and 127.0.0.1 are served");
  } else if (acts && request.has_header("Origin") &&
             request.get_header_value("Origin") != "http://" + host) {
    refuse(response, 403, "Only the service's own page may do that");
  } else if (request.method == "POST" &&
             !request.get_header_value("Content-Type").starts_with("application/json")) {
    // Which another origin's form can't send.
    refuse(response, 415, "The Content-Type must be application/json");
  } else {
    return false;
  }
  return true;
}

void givePage(Response& response, std::string_view content, const char* type) {
  response.set_content(content.data(), content.size(), type);
  response.set_header("Cache-Control", "no-cache");
  response.set_header("X-Content-Type-Options", "nosniff");
  response.set_header(
      "Content-Security-Policy",
      "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
      "connect-src 'self'; base-uri 'none'; form-action 'none'; "
      "frame-ancestors 'none'");
}

// Requests as they come, from the one after `last` on, each an event "request", and an event
// "changed" after all that may have changed something else.
class Events {
 public:
  Events(Desk& desk, std::string last) : desk_(desk), last_(std::move(last)) {}

  // Waits for what there is to tell, and tells it; at the end it tells so.
  bool operator()(std::size_t, httplib::DataSink& sink) {
    try {
      return tell(sink);
    } catch (const std::exception&) {
      return false;  // the watcher comes again
    }
  }

 private:
  bool tell(httplib::DataSink& sink) {
    std::string text;
    const auto known = desk_.news.waitFor(known_.value_or(0), known_ ? heartbeat : heartbeat * 0);
    const bool isOver = desk_.news.isOver();
    const auto requests = desk_.service.store.requestsAfter(last_, batch);
    for (const auto& [number, description] : requests) {
      text.append("event: request\nid: ").append(number).append("\ndata: ");
      text.append(description).append("\n\n");
      last_ = number;
    }
    const bool isAll = requests.size() < batch;
    if (isAll)
      text += std::exchange(known_, known) == known ? ":\n\n" : "event: changed\ndata: {}\n\n";
    if (!sink.write(text.data(), text.size())) return false;
    if (isAll && isOver) sink.done();
    return true;
  }

  Desk& desk_;
  std::string last_;
  std::optional<std::uint64_t> known_;
};

json devices(Store& store) {
  json all = json::array();
  for (const Device& device : store.devices()) {
    all.push_back({{"id", device.id},
                   {"api_key", shortened(device.apiKey)},
                   {"description", json::parse(device.description)},
                   {"first_seen", device.firstSeen},
                   {"last_seen", device.lastSeen},
                   {"pings", device.pings}});
  }
  return all;
}

json links(Store& store) {
  json all = json::array();
  for (const Link& link : store.links()) {
    const std::string shortURL = write({link.domain, link.path, ""}).value();
    all.push_back({{"short_url", shortURL},
                   {"page", shortURL.substr(std::string_view("https:/").size())},
                   {"description", json::parse(link.description)},
                   {"created", link.created},
                   {"taps", link.taps}});
  }
  return all;
}

json requests(Store& store) {
  json all = json::array();
  for (const auto& [number, description] : store.requestsAfter("0", Store::requestsKept))
    all.push_back(json::parse(description));
  return all;
}

// A tap as a browser on this machine makes it, for the next installation that asks.
void tap(Store& store, const Request& request, Response& response) {
  const json body = parse(request.body);
  const json url = body.is_object() ? body.value("short_url", json()) : json();
  const auto named = url.is_string() ? read(url) : std::nullopt;
  const auto link = named ? store.findLink(named->domain, named->path) : std::nullopt;
  if (!link) return refuse(response, 404, "\"short_url\" must be a link's");
  store.add(Tap{link->domain, link->path, url, home});
  give(response, {{"short_url", url}}, 201);
}

void drawQRCode(const std::string& text, Response& response) {
  const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
      QRcode_encodeData(static_cast<int>(text.size()),
                        reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M),
      QRcode_free);
  if (!code) return refuse(response, 400, "No QR code can be made of this \"text\"");
  constexpr int margin = 4;
  const std::string side = std::to_string(code->width + 2 * margin);
  std::string dark;
  for (int i = 0; i < code->width * code->width; ++i) {
    if ((code->data[i] & 1) == 0) continue;
    dark += 'M' + std::to_string(i % code->width + margin) + ' ' +
            std::to_string(i / code->width + margin) + "h1v1h-1z";
  }
  response.set_content("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + side + ' ' +
                           side +
                           "\" shape-rendering=\"crispEdges\"><path fill=\"#fff\" d=\"M0 0h" +
                           side + 'v' + side + "H0z\"/><path d=\"" + dark + "\"/></svg>",
                       "image/svg+xml");
}

}  // namespace

std::string shortened(const std::string& apiKey) {
  constexpr std::size_t shown = 4;
  return (apiKey.size() >= 3 * shown ? apiKey.substr(0, shown) : "") + "…";
}

bool refuseUnknown(const httplib::Request& request, Response& response) {
  if (!response.body.empty()) return true;  // it's said
  if (response.status != 404) {
    refuse(response, response.status, "The request could not be read");
  } else if (request.path.starts_with("/api/")) {
    refuse(response, 404, "There is nothing at " + request.path);
  }
  return !response.body.empty();
}

void addRoutes(httplib::Server& server, Desk& desk) {
  Store& store = desk.service.store;
  const auto changed = [&desk](Response& response) {
    response.status = 204;
    desk.news.announce();
  };
  server.set_pre_routing_handler([](const httplib::Request& request, Response& response) {
    return refuseStrangers(request, response) ? httplib::Server::HandlerResponse::Handled
                                              : httplib::Server::HandlerResponse::Unhandled;
  });
  server.set_exception_handler(
      [](const httplib::Request&, Response& response, std::exception_ptr thrown) {
        try {
          std::rethrow_exception(std::move(thrown));
        } catch (const std::invalid_argument& error) {
          refuse(response, 400, error.what());
        } catch (const std::exception& error) {
          refuse(response, 500, error.what());
        }
      });

  server.Get("/", [](const httplib::Request&, Response& response) {
    givePage(response, page::html, "text/html; charset=utf-8");
  });
  server.Get("/page.css", [](const httplib::Request&, Response& response) {
    givePage(response, page::css, "text/css; charset=utf-8");
  });
  server.Get("/page.js", [](const httplib::Request&, Response& response) {
    givePage(response, page::js, "text/javascript; charset=utf-8");
  });

  server.Get("/api/events", [&desk](const httplib::Request& request, Response& response) {
    const std::string last = request.get_header_value("Last-Event-ID");
    response.set_header("Cache-Control", "no-store");
    response.set_chunked_content_provider("text/event-stream",
                                          Events(desk, last.empty() ? "0" : last));
  });
  server.Get("/api/endpoints",
             [](const httplib::Request&, Response& response) { give(response, endpointNames()); });
  server.Get("/api/requests",
             [&](const httplib::Request&, Response& response) { give(response, requests(store)); });
  server.Get("/api/devices",
             [&](const httplib::Request&, Response& response) { give(response, devices(store)); });
  server.Get("/api/links",
             [&](const httplib::Request&, Response& response) { give(response, links(store)); });
  server.Get("/api/qr", [](const httplib::Request& request, Response& response) {
    drawQRCode(request.get_param_value("text"), response);
  });
  server.Get("/api/faults", [&](const httplib::Request&, Response& response) {
    give(response, desk.faults.list());
  });

  server.Delete("/api/devices/([^/]+)",
                [&store, changed](const httplib::Request& request, Response& response) {
                  if (!store.forget(request.matches[1]))
                    return refuse(response, 404, "There is no such device");
                  changed(response);
                });
  server.Post("/api/taps", [&](const httplib::Request& request, Response& response) {
    tap(store, request, response);
    desk.news.announce();
  });
  server.Post("/api/faults", [&](const httplib::Request& request, Response& response) {
    give(response, desk.faults.add(parse(request.body)), 201);
    desk.news.announce();
  });
  server.Delete("/api/faults", [&desk, changed](const httplib::Request&, Response& response) {
    desk.faults.clear();
    changed(response);
  });
  server.Delete("/api/faults/([0-9]{1,9})",
                [&desk, changed](const httplib::Request& request, Response& response) {
                  if (!desk.faults.remove(std::stoi(request.matches[1])))
                    return refuse(response, 404, "No such fault is on");
                  changed(response);
                });
}

}  // namespace localservice
