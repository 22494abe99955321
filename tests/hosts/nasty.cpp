// A host that does what hosts shouldn't, and then some.
//
//     nasty PORT CA-FILE WAY ...
//
// What each way does is said at its function, below. Ends with 0, or as it was told to end; a way
// that hangs ends by SIGALRM.

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/hosts/Holdings.h"
#include "tests/hosts/Requests.h"

namespace quorva::test {
namespace {

using Arguments = std::vector<std::string>;

constexpr unsigned patience = 60;  // seconds

// Trivial, so that they are there as long as the process is.
std::atomic<int> answers = 0;
std::atomic<int> goodAnswers = 0;
std::atomic<bool> returning = false;
int lastAnswer = -1;  // the one that ends the process
int status = 0;
void (*endBy)(int) = nullptr;
pthread_t mainThread;

void answered(bool isGood) {
  goodAnswers += isGood;
  if (++answers == lastAnswer) endBy(status);
}

void waitForAnswers(int count) {
  while (answers < count) waitAndDrain();
}

// What a host's exit handlers and destructors may still ask for.
void callOnceMore() {
  for (int i = 0; i < 4; ++i) request(i, answered);
  if (!pthread_equal(pthread_self(), mainThread)) return;
  initialize(answered);
  MainQueue::drain();
}

struct AtEnd {
  bool calls = false;
  ~AtEnd() {
    if (calls) callOnceMore();
  }
} atEnd;

// Gets the identifier that other ways take for granted.
int install(const Arguments&) {
  initialize(answered);
  waitForAnswers(1);
  return goodAnswers == 1 ? 0 : 1;
}

// Ends by SIGKILL in the callback that tells of the initialization.
int killed(const Arguments& arguments) {
  lastAnswer = 1;
  endBy = [](int) { kill(getpid(), SIGKILL); };
  return install(arguments);
}

// HOW WHEN N STATUS: ends by HOW with 100 requests under way and STATUS, behind the Nth call, in
// the Nth answer, or on another thread as soon as there is a byte on standard input; with an odd N
// the main queue is never emptied then. Calls the library once more from an exit handler and a
// static object's destructor.
int end(const Arguments& arguments) {
  static const std::map<std::string_view, void (*)(int)> ways{
      {"exit", std::exit},
      {"quick_exit", std::quick_exit},
      {"_exit", _exit},
      {"return", [](int) { returning = true; }},
  };
  const std::string& when = arguments.at(1);
  const int number = std::stoi(arguments.at(2));
  status = std::stoi(arguments.at(3));
  endBy = ways.at(arguments.at(0));
  if (when == "answer") lastAnswer = number;
  std::thread other;
  if (when == "thread") {
    other = std::thread([] {
      char byte = 0;
      static_cast<void>(!read(STDIN_FILENO, &byte, 1));
      endBy(status);
      MainQueue::post([] {});
    });
  }
  initialize(answered);
  atEnd.calls = true;
  for (int i = 1; i <= 100 && !returning; ++i) {
    request(i, answered);
    if (i == 1) std::atexit(callOnceMore);
    if (i == number && when == "call") endBy(status);
  }
  if (when == "thread" && number % 2 == 1) other.join();
  while (!returning) waitAndDrain();
  if (other.joinable()) other.join();
  return status;
}

// Starts a shell that finds three descriptors open, besides the one that finding takes.
int spawnLooking(bool byFork) {
  static char shell[] = "/bin/sh";
  static char option[] = "-c";
  static char look[] =
      "test $(ls /proc/self/fd | wc -l) = 4 || { ls -l /proc/self/fd >&2; exit 1; }";
  static char* const arguments[] = {shell, option, look, nullptr};
  pid_t child = -1;
  if (!byFork) {
    posix_spawn(&child, shell, nullptr, nullptr, arguments, environ);
  } else if ((child = fork()) == 0) {
    execv(shell, arguments);
    _exit(99);
  }
  int result = -1;
  waitpid(child, &result, 0);
  return result;
}

// Starts programs while 100 requests are under way, in both manners and from two threads; none may
// inherit a descriptor.
int spawn(const Arguments&) {
  for (int fd = 3; fd < 1024; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);  // what this process inherited
  initialize(answered);
  for (int i = 0; i < 100; ++i) request(i, answered);
  int failures = 0;
  for (int i = 1; i <= 20; ++i) {
    waitForAnswers(4 * i);
    const auto start = [&] { failures += spawnLooking(i % 2 == 0) != 0; };
    i % 4 < 2 ? start() : std::thread(start).join();
  }
  waitForAnswers(101);
  return failures;
}

// HANDLING: sends large bodies over connections that are reset, with SIGPIPE left as it was,
// ignored, or handled; the handler is never called. Nor does any of the library's threads take such
// a signal that is meant for nobody in particular, which curl alone would not have shown.
int pipes(const Arguments& arguments) {
  static std::atomic<int> signals = 0;
  if (arguments.at(0) == "ignored") signal(SIGPIPE, SIG_IGN);
  if (arguments.at(0) == "handled") signal(SIGPIPE, [](int) { ++signals; });
  initialize(answered);
  const std::string large(1 << 17, 'x');
  for (int i = 0; i < 32; ++i) request(i, answered, large);
  waitForAnswers(33);
  sigset_t brokenPipe;
  sigemptyset(&brokenPipe);
  sigaddset(&brokenPipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  kill(getpid(), SIGPIPE);
  constexpr timespec notAtAll{};
  return sigtimedwait(&brokenPipe, nullptr, &notAtAll) == SIGPIPE ? signals.load() : 1;
}

// COUNT: that many requests, 64 at once; says on standard output what the process held after half
// of them and at the end.
int flood(const Arguments& arguments) {
  initialize(answered);
  waitForAnswers(1);
  const int count = std::stoi(arguments.at(0));
  int asked = 1;
  for (const int end : {count / 2, count}) {
    while (answers < end) {
      for (; asked < std::min(end, answers + 64); ++asked) request(asked, answered);
      waitAndDrain();
      alarm(patience);
    }
    printHoldings();
  }
  return 0;
}

// Leaves the process without a further descriptor, or without a further thread.
void take(const std::string& what, bool all) {
  if (what == "descriptors") {
    const int next = dup(STDIN_FILENO);
    close(next);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = all ? static_cast<rlim_t>(next) : limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  } else {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    // No address space has room for such a stack.
    pthread_attr_setstacksize(&attributes, all ? std::size_t{1} << 47 : std::size_t{1} << 20);
    pthread_setattr_default_np(&attributes);
  }
}

// WHAT: none of "descriptors" or "threads" is left to the library at first, and enough later. Every
// request has its answer, in time; the later ones a good one.
int scarce(const Arguments& arguments) {
  lastAnswer = 41;
  endBy = [](int) { MainQueue::stop(); };
  for (const bool all : {true, false}) {
    take(arguments.at(0), all);
    answers = goodAnswers = 0;
    initialize(answered);
    for (int i = 0; i < 40; ++i) request(i, answered);
    MainQueue::run();
    // Without threads there are still the settings, and so an identifier.
    const bool hasDescriptors = !all || arguments.at(0) == "threads";
    if (goodAnswers != (!all ? 41 : hasDescriptors)) return 1;
    if ((MainQueue::fd() >= 0) != hasDescriptors) return 2;
  }
  return 0;
}

}  // namespace
}  // namespace quorva::test

int main(int argc, char** argv) {
  using namespace quorva::test;
  static const std::map<std::string_view, int (*)(const Arguments&)> ways{
      {"install", install}, {"kill", killed}, {"end", end},       {"spawn", spawn},
      {"pipes", pipes},     {"flood", flood}, {"scarce", scarce},
  };
  const Arguments arguments(argv + 1, argv + argc);
  alarm(patience);
  mainThread = pthread_self();
  quorva::useLocalService(static_cast<std::uint16_t>(std::atoi(argv[1])), argv[2]);
  return ways.at(arguments.at(2))(Arguments(arguments.begin() + 3, arguments.end()));
}
