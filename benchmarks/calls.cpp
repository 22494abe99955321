// Creations of links, over and over, by the public interface.
//
//     calls PORT CA-FILE CALLS AT-ONCE
//
// Prints the seconds that `initialize` took; those that the calls took, once the library was
// initialized, and what of them the main thread worked; and the resident memory, in KiB, before
// them and at the highest.

#include <QuorvaSDK/LocalService.h>
#include <QuorvaSDK/QuorvaSDK.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using Clock = std::chrono::steady_clock;

long calls = 0;
long atOnce = 0;
long begun = 0;
long done = 0;
Clock::time_point start;
double workBefore = 0;
double secondsToInitialize = 0;
long memoryBefore = 0;

double mainThreadsWork() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A line of /proc/self/status, in KiB.
long memory(const char* name) {
  std::FILE* status = std::fopen("/proc/self/status", "re");
  char line[256];
  long size = 0;
  while (std::fgets(line, sizeof line, status)) {
    if (std::strncmp(line, name, std::strlen(name)) == 0)
      size = std::atol(line + std::strlen(name));
  }
  std::fclose(status);
  return size;
}

double since(Clock::time_point time) {
  return std::chrono::duration<double>(Clock::now() - time).count();
}

[[noreturn]] void finish() {
  std::printf(
      "{\"initialize\": %.9f, \"seconds\": %.9f, \"work\": %.9f, \"before\": %ld, \"peak\": %ld}\n",
      secondsToInitialize, since(start), mainThreadsWork() - workBefore, memoryBefore,
      memory("VmHWM:"));
  std::fflush(stdout);
  std::_Exit(EXIT_SUCCESS);
}

void create();

void take(const std::optional<std::string>&, const std::optional<quorva::Error>& error) {
  if (error) {
    std::fprintf(stderr, "calls: %s\n", error->what());
    std::_Exit(EXIT_FAILURE);
  }
  if (++done >= calls) finish();
  if (begun < calls) create();
}

void create() {
  static const auto link =
      quorva::QVDynamicLinkBuilder("https://shop.example/shoes", "go.shop.example")
          .setSocialParameters("Shoes", "New in", "https://shop.example/shoes.png")
          .setUTMParameters("newsletter", "email", "spring");
  ++begun;
  quorva::Quorva::createDynamicLink(link, take);
}

class Host : public quorva::QuorvaDelegate {
 public:
  void quorvaDidInitialize(const quorva::QVConfiguration&) override {
    memoryBefore = memory("VmRSS:");
    workBefore = mainThreadsWork();
    start = Clock::now();
    if (calls == 0) quorva::MainQueue::stop();
    while (begun < std::min(calls, atOnce)) create();
  }
  void quorvaDidFailToInitialize(const quorva::Error& error) override { take(std::nullopt, error); }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fputs("usage: calls PORT CA-FILE CALLS AT-ONCE\n", stderr);
    return EXIT_FAILURE;
  }
  calls = std::atol(argv[3]);
  atOnce = std::atol(argv[4]);
  quorva::useLocalService(static_cast<std::uint16_t>(std::atoi(argv[1])), argv[2]);
  const auto before = Clock::now();
  quorva::Quorva::initialize(quorva::QVConfiguration("key", false, std::make_shared<Host>()));
  secondsToInitialize = since(before);
  quorva::MainQueue::run();
  finish();
}
