// What a browser, or an application's test, finds on the service's own page: the requests as they
// come, the links, the devices, and the switches for what is to go wrong.
//
// Any thread. What fails is an answer with a "detail".

#pragma once

#include <httplib.h>

#include <string>

#include "localservice/Faults.h"
#include "localservice/News.h"
#include "localservice/Service.h"

namespace localservice {

/// What the library's side and the page's have in common.
struct Desk {
  const Service& service;
  Faults faults{};
  News news{};
};

/// Enough of an API key to know it again, and no more.
[[nodiscard]] std::string shortened(const std::string& apiKey);

/// Whether the response to what no route took is made: to what couldn't be read, and below "/api/".
/// What else there is may be a link.
[[nodiscard]] bool refuseUnknown(const httplib::Request& request, httplib::Response& response);

/// Adds the page and its JSON interface; `desk` outlives the server. Refuses, for all paths, hosts
/// that aren't this machine, and actions of other origins' pages.
void addRoutes(httplib::Server& server, Desk& desk);

}  // namespace localservice
