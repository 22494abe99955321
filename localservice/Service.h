// What the local service answers to a request of the library.
//
// Any thread. What fails on the way is no exception but an answer with the status 500.

#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "localservice/Store.h"

namespace localservice {

struct Service {
  Store& store;  // outlives the service
  std::set<std::string> refusedKeys;
  std::string appScheme;  // of links that open the application; empty if there are none
};

struct Request {
  std::string_view method;
  std::string_view path;
  std::string_view body;
  std::string_view address;  // the network address it comes from
};

struct Answer {
  int status;
  nlohmann::json body;
};

/// The value of a JSON text; discarded, also if it is nested so deep that writing it down would
/// take a stack without end.
[[nodiscard]] nlohmann::json parse(std::string_view text);

/// Where the library calls, as a path: all endpoints begin so, and go on with their names.
inline constexpr std::string_view endpointsPath = "/app/api/v1/";

[[nodiscard]] std::vector<std::string_view> endpointNames();

/// In bytes.
inline constexpr std::size_t largestBody = std::size_t{1024} * 1024;

[[nodiscard]] Answer answer(const Service& service, const Request& request);

/// The answer to a request that isn't granted; `detail` tells a person why.
[[nodiscard]] Answer refusal(int status, const std::string& detail);

}  // namespace localservice
