#include "localservice/Faults.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace localservice {
namespace {

using nlohmann::json;

constexpr const char* anyEndpoint = "*";
constexpr int longestDelay = 600'000;

bool isWhole(const json& value, int from, int to) {
  return value.is_number_integer() && value >= from && value <= to;
}

struct Kind {
  const char* name;
  const char* value;  // what it says; null if there is none
  bool (*fits)(const json& value);
  void (*happen)(Reply& reply, const json& value);
};

// The field that the endpoint is there for, unless one is named, as a number, or a number as text.
void changeType(Reply& reply, const json& value) {
  json body = json::parse(reply.body, nullptr, false);
  std::string name = value.is_string() ? value.get<std::string>() : "";
  for (const char* field : {"uuid", "short_url", "destination_url", "match_found", "detail"})
    if (name.empty() && body.contains(field)) name = field;
  if (name.empty()) name = "status";
  body[name] = body.value(name, json()).is_number() ? json("text") : json(7);
  reply.body = body.dump();
}

// In the order in which they happen.
constexpr Kind kinds[] = {
    {"delay", "milliseconds, at most 600000",
     [](const json& value) { return isWhole(value, 0, longestDelay); },
     [](Reply& reply, const json& value) {
       reply.delay += std::chrono::milliseconds(value.get<int>());
     }},
    {"status", "an HTTP status from 200 to 599",
     [](const json& value) { return isWhole(value, 200, 599); },
     [](Reply& reply, const json& value) {
       reply.status = value;
       reply.body = R"({"message":"Fault","detail":"The local service was told to answer so"})";
     }},
    {"wrong-type", "the name of a field, or nothing",
     [](const json& value) { return value.is_string() || value.is_null(); }, changeType},
    {"not-json", nullptr, nullptr,
     [](Reply& reply, const json&) { reply.body = "<!doctype html><title>Not JSON</title>"; }},
    {"half-body", nullptr, nullptr, [](Reply& reply, const json&) { reply.isHalf = true; }},
    {"reset", nullptr, nullptr, [](Reply& reply, const json&) { reply.isReset = true; }},
};

[[noreturn]] void refuse(const std::string& why) {
  throw std::invalid_argument(why);
}

std::string oneOf(const auto& names) {
  std::string text;
  for (const auto& name : names) text.append(text.empty() ? "" : ", ").append(name);
  return text;
}

std::string textOf(const json& description, const char* key) {
  const auto value = description.find(key);
  return value != description.end() && value->is_string() ? value->get<std::string>() : "";
}

}  // namespace

json Faults::add(const json& description) {
  if (!description.is_object()) refuse("A fault must be a JSON object");
  for (const auto& [key, value] : description.items()) {
    if (key != "endpoint" && key != "kind" && key != "value" && key != "once")
      refuse("A fault has no \"" + key + '"');
  }
  std::vector<std::string_view> endpoints = endpointNames();
  endpoints.emplace_back(anyEndpoint);
  const std::string endpoint = textOf(description, "endpoint");
  if (std::ranges::find(endpoints, endpoint) == endpoints.end())
    refuse("\"endpoint\" must be one of " + oneOf(endpoints));
  const std::string name = textOf(description, "kind");
  const auto* kind = std::ranges::find(kinds, name, &Kind::name);
  if (kind == std::end(kinds)) {
    std::vector<std::string_view> names;
    for (const Kind& each : kinds) names.emplace_back(each.name);
    refuse("\"kind\" must be one of " + oneOf(names));
  }
  const json value = description.value("value", json());
  if (!kind->value && !value.is_null()) refuse("\"value\" has no meaning for " + name);
  if (kind->value && !kind->fits(value)) refuse(std::string("\"value\" must be ") + kind->value);
  const json once = description.value("once", json(false));
  if (!once.is_boolean()) refuse("\"once\" must be true or false");

  const std::scoped_lock lock(mutex_);
  json fault{
      {"id", ++lastId_}, {"endpoint", endpoint}, {"kind", name}, {"value", value}, {"once", once}};
  return on_.emplace(lastId_, std::move(fault)).first->second;
}

json Faults::list() {
  const std::scoped_lock lock(mutex_);
  json all = json::array();
  for (const auto& [id, fault] : on_) all.push_back(fault);
  return all;
}

bool Faults::remove(int id) {
  const std::scoped_lock lock(mutex_);
  return on_.erase(id) == 1;
}

void Faults::clear() {
  const std::scoped_lock lock(mutex_);
  on_.clear();
}

Reply Faults::reply(std::string_view endpoint, const std::function<Answer()>& answer) {
  std::vector<json> happening;
  {
    const std::scoped_lock lock(mutex_);
    std::erase_if(on_, [&](const auto& entry) {
      const json& fault = entry.second;
      if (fault["endpoint"] != endpoint && fault["endpoint"] != anyEndpoint) return false;
      happening.push_back(fault);
      return fault["once"].template get<bool>();
    });
  }
  const bool isAnswered =
      std::ranges::none_of(happening, [](const json& fault) { return fault["kind"] == "status"; });
  Reply reply{200, ""};
  if (isAnswered) {
    const Answer given = answer();
    // A detail may quote what isn't UTF-8.
    reply = {given.status, given.body.dump(-1, ' ', false, json::error_handler_t::replace)};
  }
  for (const Kind& kind : kinds) {
    for (const json& fault : happening) {
      if (fault["kind"] == kind.name) {
        kind.happen(reply, fault["value"]);
        reply.faults.emplace_back(kind.name);
      }
    }
  }
  // Those have none; a client would take it for the next answer.
  if (reply.status == 204 || reply.status == 205 || reply.status == 304) reply.body.clear();
  return reply;
}

}  // namespace localservice
