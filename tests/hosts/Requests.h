// Requests of every kind, as hosts under test make them.

#pragma once

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>
#include <poll.h>

#include <memory>
#include <optional>
#include <string>

namespace quorva::test {

/// Hears that a request has its answer, and whether that is a good one.
using Answered = void (*)(bool isGood);

struct Delegate : QuorvaDelegate {
  explicit Delegate(Answered a) : answered(a) {}
  void quorvaDidInitialize(const QVConfiguration&) override { answered(true); }
  void quorvaDidFailToInitialize(const Error&) override { answered(false); }
  void quorvaDidResolveDeepLink(const URL&, const Metadata&) override { answered(true); }
  void quorvaDidFailToResolveDeepLink(const std::optional<URL>& link, const Error&) override {
    if (link) answered(false);
  }
  const Answered answered;
};

/// `answered` is told how that went, and of those answers to requests that a delegate hears of.
inline void initialize(Answered answered) {
  Quorva::initialize(QVConfiguration("qk", false, std::make_shared<Delegate>(answered)));
}

/// The `index`th request, of one of the four kinds.
inline void request(int index, Answered answered, const std::string& path = "") {
  const QVDynamicLinkBuilder link("https://shop.example/" + path, "go.shop.example");
  const std::string shortLink = "https://go.shop.example/" + path;
  switch (index % 4) {
    case 0:
      return Quorva::createDynamicLink(
          link, [answered](const auto& given, const auto&) { answered(given.has_value()); });
    case 1:
      return start(Quorva::createDynamicLink(link),
                   [answered](const auto& given) { answered(bool(given)); });
    case 2:
      return start(Quorva::resolveDynamicLink(shortLink),
                   [answered](const auto& given) { answered(bool(given)); });
    default:
      return Quorva::handleLink(*URL::parse(shortLink));
  }
}

/// Waits until there is something in the main queue, and runs it.
inline void waitAndDrain() {
  pollfd queue{MainQueue::fd(), POLLIN, 0};
  poll(&queue, 1, -1);
  MainQueue::drain();
}

}  // namespace quorva::test
