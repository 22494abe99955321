// A host application that never heard of exceptions, type information or coroutines, with a loop of
// its own: built with all of that switched off.
//
//     plainhost PORT CA-FILE [kill|exit|leave]
//
// Initializes, creates a link in both ways, and ends with 0 if all went well. The last word has it
// end as hosts do at times, which the tests make use of: by SIGKILL in the callback that tells of
// the initialization, by exit() from there with requests under way, or by leaving main as soon as
// it has begun.

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool isDone = false;
int result = 1;

void finish(int code) {
  result = code;
  isDone = true;
}

class Host : public quorva::QuorvaDelegate {
 public:
  explicit Host(const char* way) : way_(way) {}

  void quorvaDidInitialize(const quorva::QVConfiguration&) override {
    if (std::strcmp(way_, "kill") == 0) kill(getpid(), SIGKILL);
    const quorva::QVDynamicLinkBuilder link("https://shop.example", "go.shop.example");
    if (std::strcmp(way_, "exit") == 0) {
      for (int i = 0; i < 10; ++i) quorva::Quorva::createDynamicLink(link, nullptr);
      std::exit(0);
    }
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

 private:
  const char* way_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: plainhost PORT CA-FILE   (as the local service prints them)\n", stderr);
    return 6;
  }
  const char* way = argc > 3 ? argv[3] : "";
  quorva::useLocalService(static_cast<std::uint16_t>(std::atoi(argv[1])), argv[2]);
  quorva::Quorva::initialize(quorva::QVConfiguration("qk", false, std::make_shared<Host>(way)));
  if (std::strcmp(way, "leave") == 0) return 0;
  while (!isDone) {
    pollfd queue{quorva::MainQueue::fd(), POLLIN, 0};
    poll(&queue, 1, -1);
    quorva::MainQueue::drain();
  }
  return result;
}
