// The files of the service's page, as they are in page/.

#pragma once

#include <string_view>

namespace localservice::page {

extern const std::string_view html, css, js;

}  // namespace localservice::page
