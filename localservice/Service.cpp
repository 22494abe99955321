#include "localservice/Service.h"

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

constexpr std::size_t largestBody = std::size_t{1024} * 1024;
constexpr int deepestBody = 16;

struct Form {
  const char* description;
  bool (*fits)(const json& value);
};

constexpr Form text{"text", [](const json& value) { return value.is_string(); }};
constexpr Form filledText{"text that isn't empty", [](const json& value) {
                             return value.is_string() &&
                                    !value.get_ref<const std::string&>().empty();
                           }};
constexpr Form object{"an object", [](const json& value) { return value.is_object(); }};
constexpr Form behavior{"1 or 2", [](const json& value) {
                           return value.is_number_integer() && (value == 1 || value == 2);
                         }};

struct Field {
  const char* name;
  const Form& form;
  bool optional = false;
};

constexpr Field deviceFields[] = {{"api_key", text}, {"data", object}, {"ref_id", text}};

constexpr Field pingFields[] = {{"api_key", filledText}, {"device_id", filledText},
                                 {"device_info", object}, {"platform", filledText},
                                 {"lib", filledText},     {"lib_version", filledText}};

constexpr Field linkFields[] = {{"api_key", filledText},
                                 {"device_id", filledText},
                                 {"android_behavior", behavior},
                                 {"destination_url", filledText},
                                 {"domain", filledText},
                                 {"ios_behavior", behavior},
                                 {"link_name", text, true},
                                 {"selected_path", text, true},
                                 {"social_description", text, true},
                                 {"social_image_url", text, true},
                                 {"social_title", text, true},
                                 {"utm_source", text, true},
                                 {"utm_medium", text, true},
                                 {"utm_campaign", text, true},
                                 {"utm_content", text, true},
                                 {"utm_term", text, true}};

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

Answer retrieveDeviceId(const Service& service, const json& request) {
  const Device device{randomUUID(), request["api_key"], request["data"].dump()};
  service.store.add(device);
  return {200, {{"uuid", device.id}, {"status", "ok"}}};
}

Answer pingDevice(const Service&, const json&) {
  return {200, {{"status", "ok"}}};
}

Answer createLink(const Service& service, const json& request) {
  json description = request;
  description.erase("api_key");
  Link link{request["domain"], request.value("selected_path", ""), request["device_id"],
            description.dump()};
  if (link.path.empty()) {
    do {
      link.path = randomPath();
    } while (!service.store.add(link));
  } else if (!service.store.add(link)) {
    return refusal(400, "The path " + inQuotes(link.path) + " already exists on " + link.domain);
  }
  return {201,
          {{"status", "created"},
           {"message", "The link was created"},
           {"short_url", "https://" + link.domain + "/" + link.path}}};
}

struct Endpoint {
  std::string_view path;
  std::span<const Field> fields;
  bool fromDevice;
  Answer (*handle)(const Service& service, const json& request);
};

constexpr Endpoint endpoints[] = {
    {"/app/api/v1/retrieveDeviceId", deviceFields, false, retrieveDeviceId},
    {"/app/api/v1/device_ping", pingFields, true, pingDevice},
    {"/app/api/v1/create_link", linkFields, true, createLink},
};

// No object, either, if it is nested so deep that writing it down would take a stack without end.
json parse(std::string_view body) {
  bool flat = true;
  return json::parse(
      body,
      [&](int depth, json::parse_event_t, const json&) {
        return flat = flat && depth <= deepestBody;
      },
      false);
}

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

Answer grantOrRefuse(const Service& service, std::string_view method, std::string_view path,
                     std::string_view body) {
  const auto* endpoint = std::ranges::find(endpoints, path, &Endpoint::path);
  if (endpoint == std::end(endpoints)) {
    return refusal(404, "There is nothing at " + std::string(path));
  }
  if (method != "POST") return refusal(405, "Only POST is allowed here");
  if (body.size() > largestBody) return refusal(413, "The body is larger than 1 MiB");

  const json request = parse(body);
  if (!request.is_object()) return refusal(400, "The body must be a JSON object, and a flat one");
  if (const std::string detail = fault(request, endpoint->fields); !detail.empty()) {
    return refusal(400, detail);
  }
  if (isRefused(service, request["api_key"])) return refusal(401, "The API key was refused");
  if (endpoint->fromDevice && !service.store.touch(request["device_id"], request["api_key"])) {
    return refusal(400, "No device has this \"device_id\" and \"api_key\"");
  }
  return endpoint->handle(service, request);
}

}  // namespace

Answer answer(const Service& service, std::string_view method, std::string_view path,
              std::string_view body) {
  try {
    return grantOrRefuse(service, method, path, body);
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
