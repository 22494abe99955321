// A C++ program linked with libcurl, which is never used: what starting it costs.

#include <curl/curl.h>

#include <stdexcept>

int main(int argc, char**) {
  if (argc > 1) throw std::runtime_error(curl_version());
}
