#include "localservice/Service.h"

#include "localservice/ShortLink.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <map>
#include <random>
#include <span>
#include <utility>

namespace localservice {
namespace {

using nlohmann::json;

constexpr int deepestBody = 16;

struct Form {
  const char* description;
  bool (*fits)(const json& value);
};

constexpr Form anyText{"text", [](const json& value) { return value.is_string(); }};
constexpr Form filledText{"text that isn't empty", [](const json& value) {
                            return value.is_string() &&
                                   !value.get_ref<const std::string&>().empty();
                          }};
constexpr Form anyObject{"an object", [](const json& value) { return value.is_object(); }};
constexpr Form behavior{"1 or 2", [](const json& value) {
                          return value.is_number_integer() && (value == 1 || value == 2);
                        }};

struct Field {
  const char* name;
  const Form& form;
  bool optional = false;
};

constexpr Field deviceFields[] = {{"api_key", anyText}, {"data", anyObject}, {"ref_id", anyText}};

constexpr Field pingFields[] = {{"api_key", filledText},    {"device_id", filledText},
                                {"device_info", anyObject}, {"platform", filledText},
                                {"lib", filledText},        {"lib_version", filledText}};

constexpr Field linkFields[] = {{"api_key", filledText},
                                {"device_id", filledText},
                                {"android_behavior", behavior},
                                {"destination_url", filledText},
                                {"domain", filledText},
                                {"ios_behavior", behavior},
                                {"link_name", anyText, true},
                                {"selected_path", anyText, true},
                                {"social_description", anyText, true},
                                {"social_image_url", anyText, true},
                                {"social_title", anyText, true},
                                {"utm_source", anyText, true},
                                {"utm_medium", anyText, true},
                                {"utm_campaign", anyText, true},
                                {"utm_content", anyText, true},
                                {"utm_term", anyText, true}};

constexpr Field resolveFields[] = {
    {"api_key", filledText}, {"device_uuid", filledText}, {"short_url", filledText}};

constexpr Field deferredFields[] = {{"api_key", filledText}, {"device_uuid", filledText}};

// A request that is in order.
struct Call {
  const Service& service;
  const json& body;
  std::string_view address;
};

std::string inQuotes(std::string_view text) {
  return '"' + std::string(text) + '"';
}

std::string randomText(std::size_t size, std::string_view alphabet) {
  std::random_device device;
  std::uniform_int_distribution<std::size_t> position(0, alphabet.size() - 1);
  std::string text(size, ' ');
  for (char& character : text) character = alphabet[position(device)];
  return text;
}

std::string randomUUID() {
  const auto digits = [](std::size_t count) { return randomText(count, "0123456789abcdef"); };
  return digits(8) + '-' + digits(4) + "-4" + digits(3) + '-' + randomText(1, "89ab") + digits(3) +
         '-' + digits(12);
}

std::string randomPath() {
  return randomText(8, "abcdefghijklmnopqrstuvwxyz0123456789");
}

Answer retrieveDeviceId(const Call& call) {
  const Device device{randomUUID(), call.body["api_key"], call.body["data"].dump()};
  call.service.store.add(device);
  return {200, {{"uuid", device.id}, {"status", "ok"}}};
}

Answer pingDevice(const Call& call) {
  call.service.store.addPing(call.body["device_id"]);
  return {200, {{"status", "ok"}}};
}

Answer createLink(const Call& call) {
  Store& store = call.service.store;
  json description = call.body;
  description.erase("api_key");
  Link link{call.body["domain"], call.body.value("selected_path", ""), call.body["device_id"],
            description.dump()};
  const bool isChosen = !link.path.empty();
  if (!isChosen) link.path = randomPath();

  const ShortLink parts{link.domain, link.path, ""};
  const auto shortURL = write(parts);
  if (!shortURL || read(*shortURL) != parts) {
    return refusal(400, "No link can be made of the domain " + inQuotes(link.domain) +
                            " and the path " + inQuotes(link.path));
  }
  if (!store.add(link)) {
    if (!isChosen) return createLink(call);
    return refusal(400, "The path " + inQuotes(link.path) + " already exists on " + link.domain);
  }
  return {201,
          {{"status", "created"}, {"message", "The link was created"}, {"short_url", *shortURL}}};
}

Answer resolveLink(const Call& call) {
  const std::string& url = call.body["short_url"].get_ref<const std::string&>();
  const auto named = read(url);
  const auto link = named ? call.service.store.findLink(named->domain, named->path) : std::nullopt;
  if (!link) return refusal(404, "There is no link " + inQuotes(url));
  return {200, {{"destination_url", json::parse(link->description).at("destination_url")}}};
}

Answer findDeferredLink(const Call& call) {
  Store& store = call.service.store;
  const auto tap = store.claimTap(std::string(call.address), call.body["device_uuid"]);
  const auto link = tap ? store.findLink(tap->domain, tap->path) : std::nullopt;
  if (!link) return {200, {{"match_found", false}}};
  const json description = json::parse(link->description);
  return {200,
          {{"match_found", true},
           {"match_type", "network_address"},
           {"destination_url", description.at("destination_url")},
           {"original_url", tap->url},
           {"short_url", write({link->domain, link->path, ""}).value_or("")},
           {"utm_params", campaign(description)}}};
}

struct Endpoint {
  std::string_view name;
  std::span<const Field> fields;
  const char* deviceField;  // names the device that calls; null if it has no name yet
  Answer (*handle)(const Call& call);
};

constexpr Endpoint endpoints[] = {
    {"retrieveDeviceId", deviceFields, nullptr, retrieveDeviceId},
    {"device_ping", pingFields, "device_id", pingDevice},
    {"create_link", linkFields, "device_id", createLink},
    {"resolve", resolveFields, "device_uuid", resolveLink},
    {"getAnyDeferredDeeplinks", deferredFields, "device_uuid", findDeferredLink},
};

std::string fault(const json& request, std::span<const Field> fields) {
  for (const auto& [name, form, optional] : fields) {
    const auto value = request.find(name);
    if (value == request.end()) {
      if (!optional) return inQuotes(name) + " is missing";
    } else if (!form.fits(*value)) {
      return inQuotes(name) + " must be " + form.description;
    }
  }
  return {};
}

bool isRefused(const Service& service, const std::string& key) {
  return key.find_first_not_of(" \t\r\n") == std::string::npos || service.refusedKeys.contains(key);
}

Answer grantOrRefuse(const Service& service, const Request& request) {
  const bool isOurs = request.path.starts_with(endpointsPath);
  const std::string_view name = isOurs ? request.path.substr(endpointsPath.size()) : "";
  const auto* endpoint = std::ranges::find(endpoints, name, &Endpoint::name);
  if (endpoint == std::end(endpoints)) {
    return refusal(404, "There is nothing at " + std::string(request.path));
  }
  if (request.method != "POST") return refusal(405, "Only POST is allowed here");
  if (request.body.size() > largestBody) return refusal(413, "The body is larger than 1 MiB");

  const json body = parse(request.body);
  if (!body.is_object()) return refusal(400, "The body must be a JSON object, and a flat one");
  if (const std::string detail = fault(body, endpoint->fields); !detail.empty()) {
    return refusal(400, detail);
  }
  if (isRefused(service, body["api_key"])) return refusal(401, "The API key was refused");
  if (const char* device = endpoint->deviceField;
      device && !service.store.touch(body[device], body["api_key"])) {
    return refusal(400, "No device has this " + inQuotes(device) + " and \"api_key\"");
  }
  return endpoint->handle({service, body, request.address});
}

}  // namespace

json parse(std::string_view text) {
  bool flat = true;
  return json::parse(
      text,
      [&](int depth, json::parse_event_t, const json&) {
        return flat = flat && depth <= deepestBody;
      },
      false);
}

std::vector<std::string_view> endpointNames() {
  std::vector<std::string_view> names;
  for (const Endpoint& endpoint : endpoints) names.push_back(endpoint.name);
  return names;
}

Answer answer(const Service& service, const Request& request) {
  try {
    return grantOrRefuse(service, request);
  } catch (const std::exception& error) {
    return refusal(500, error.what());
  }
}

Answer refusal(int status, const std::string& detail) {
  static const std::map<int, std::string> messages{
      {400, "Bad Request"},        {401, "Unauthorized"},      {404, "Not Found"},
      {405, "Method Not Allowed"}, {413, "Payload Too Large"}, {500, "Internal Server Error"}};
  return {status, {{"message", messages.at(status)}, {"detail", detail}}};
}

}  // namespace localservice
