// A host application that never heard of exceptions, type information or coroutines, with a loop of
// its own: built with all of that switched off.
//
//     plainhost PORT CA-FILE
//
// Initializes, creates a link in both ways, and ends with 0 if all went well.

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>
#include <poll.h>

#include <cstdio>
#include <cstdlib>

namespace {

bool isDone = false;
int result = 1;

void finish(int code) {
  result = code;
  isDone = true;
}

class Host : public quorva::QuorvaDelegate {
 public:
  void quorvaDidInitialize(const quorva::QVConfiguration&) override {
    const quorva::QVDynamicLinkBuilder link("https://shop.example", "go.shop.example");
    quorva::Quorva::createDynamicLink(
        link, [link](std::optional<std::string> shortLink, std::optional<quorva::Error>) {
          if (!shortLink) return finish(2);
          quorva::start(quorva::Quorva::createDynamicLink(link),
                        [](quorva::Result<std::optional<std::string>> answer) {
                          finish(answer && *answer ? 0 : 3);
                        });
        });
  }
  void quorvaDidFailToInitialize(const quorva::Error& error) override {
    finish(error.as<quorva::URLError>() ? 4 : 5);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: plainhost PORT CA-FILE   (as the local service prints them)\n", stderr);
    return 6;
  }
  quorva::useLocalService(static_cast<std::uint16_t>(std::atoi(argv[1])), argv[2]);
  quorva::Quorva::initialize(quorva::QVConfiguration("qk", false, std::make_shared<Host>()));
  while (!isDone) {
    pollfd queue{quorva::MainQueue::fd(), POLLIN, 0};
    poll(&queue, 1, -1);
    quorva::MainQueue::drain();
  }
  return result;
}
