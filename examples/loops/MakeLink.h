// What the programs here have in common: each makes a link and says what it is, in a loop of
// another kind. What it takes to join the library to that loop is in the program's own file.

#pragma once

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

class MakeLink : public quorva::QuorvaDelegate {
 public:
  MakeLink(std::string program, std::function<void(int status)> finish)
      : program_(std::move(program)), finish_(std::move(finish)) {}

  void quorvaDidInitialize(const quorva::QVConfiguration&) override {
    const quorva::QVDynamicLinkBuilder link("https://shop.example/shoes", "go.shop.example");
    quorva::Quorva::createDynamicLink(
        link, [this](std::optional<std::string> shortLink, std::optional<quorva::Error> error) {
          if (error) return fail(*error);
          std::puts(shortLink->c_str());
          finish_(EXIT_SUCCESS);
        });
  }
  void quorvaDidFailToInitialize(const quorva::Error& error) override { fail(error); }

 private:
  void fail(const quorva::Error& error) const {
    std::fprintf(stderr, "%s: %s\n", program_.c_str(), error.what());
    finish_(EXIT_FAILURE);
  }

  const std::string program_;
  const std::function<void(int status)> finish_;
};

/// Starts the library as `PROGRAM PORT CA-FILE` says. `finish` is called once, with the status to
/// end with, when the queue is emptied: not before the loop runs.
inline void makeLink(int argc, char** argv, std::function<void(int status)> finish) {
  const char* const program = argc > 0 ? argv[0] : "";
  std::uint16_t port = 0;
  const char* const end = argc == 3 ? argv[1] + std::strlen(argv[1]) : nullptr;
  if (!end || std::from_chars(argv[1], end, port).ptr != end || port == 0) {
    std::fprintf(stderr, "usage: %s PORT CA-FILE   (as the local service prints them)\n", program);
    std::exit(2);
  }
  quorva::useLocalService(port, argv[2]);
  quorva::Quorva::initialize(quorva::QVConfiguration(
      "qk_loops", /*debug=*/false, std::make_shared<MakeLink>(program, std::move(finish))));
}
