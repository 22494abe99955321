// What a browser gets that opens a short link: the tap is noted, and a page leads on.
//
// Any thread. What fails on the way is no exception but a page with the status 500.

#pragma once

#include <string>

#include "localservice/Service.h"

namespace localservice {

struct Visit {
  std::string method;
  std::string target;     // path and query, as the browser writes them
  std::string userAgent;  // empty if it doesn't say
  std::string address;    // the network address it comes from
};

struct Page {
  int status;
  std::string html;
  std::string location;  // where the browser is sent at once; empty if it isn't
};

/// The link is the one that the path, /domain/path, names. Only a GET of it is a tap.
[[nodiscard]] Page visit(const Service& service, const Visit& visit);

}  // namespace localservice
