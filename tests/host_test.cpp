// The library in a process of its own: what a second start finds, what an end at any moment does,
// and what else a host may do to itself without the library being the reason for its end.

#include <array>
#include <csignal>
#include <latch>
#include <random>
#include <sstream>

#include "platform/GeneralExecutor.h"
#include "tests/Process.h"
#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Console;
using test::drainUntil;
using test::Process;
using test::Reply;
using test::rounds;
using test::ScriptedServer;
using test::secondsSince;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;  // and holds much memory of its own
#else
constexpr bool isSanitized = false;
#endif

class Host : public test::ServiceFixture {
 protected:
  Host() { setenv("XDG_DATA_HOME", installation_.path().c_str(), 1); }

  // Starts a host whose requests go to `port`.
  Process host(const std::string& program, const std::string& more, std::uint16_t port) const {
    return Process("'" + program + "' " + std::to_string(port) + " " + caFile.string() + " " +
                   more);
  }

  // How such hosts end that use the fixture's server.
  int run() const { return host(QUORVA_HOST_PROGRAM, "", server.port()).end(); }
  int runNasty(const std::string& way) const {
    return host(QUORVA_NASTY_PROGRAM, way, server.port()).end();
  }

  std::string lastIdentifier(const std::string& path, const char* key) const {
    return nlohmann::json::parse(sent(path).back().body).at(key);
  }

 private:
  const test::TemporaryDirectory installation_;
};

TEST_F(Host, WithoutExceptionsOrTypeInformationCanDoEverything) {
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(sent("create_link").size(), 2U);
  answer("create_link", 500, "{}");
  EXPECT_EQ(run(), 2);
}

TEST_F(Host, ASecondStartFindsWhatTheFirstStored) {
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
  EXPECT_EQ(lastIdentifier("create_link", "device_id"), "u-1");
  EXPECT_EQ(lastIdentifier("create_link", "api_key"), "qk");
}

TEST_F(Host, AKillRightBehindTheWriteLosesNothing) {
  EXPECT_EQ(runNasty("kill"), -SIGKILL);
  EXPECT_EQ(runNasty("install"), 0);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
}

TEST_F(Host, MayStartProgramsThatInheritNothing) {
  EXPECT_EQ(runNasty("install"), 0);
  EXPECT_EQ(runNasty("spawn"), 0);
}

TEST_F(Host, MayHaveNothingLeftForTheLibraryForAWhile) {
  EXPECT_EQ(runNasty("install"), 0);
  for (const char* way : {"scarce descriptors", "scarce threads"})
    EXPECT_EQ(runNasty(way), 0) << way;
}

TEST_F(Host, HearsOfNoBrokenPipe) {
  EXPECT_EQ(runNasty("install"), 0);
  // The server resets each connection in the middle of a body that it is sent.
  for (const char* path : {"create_link", "resolve"}) answer(path, {"", Reply::Then::reset});
  server.greet(identity, test::Greeting::impatient);
  for (const char* way : {"pipes default", "pipes ignored", "pipes handled"})
    EXPECT_EQ(runNasty(way), 0) << way;
}

TEST_F(Host, MayEmptyTheQueueLateAndFromInsideACallback) {
  constexpr int count = 10'000;
  MainQueue::drain();  // so that this is the application's thread
  std::latch allThere(1);
  int answered = 0;
  std::size_t inside = 0;
  const std::string refused = kind(QuorvaError::invalidAPIKey);
  const QVDynamicLinkBuilder link("https://d", "go");
  for (int i = 0; i < count; ++i) {
    // There is no key yet, and so an answer at once.
    Quorva::createDynamicLink(link, [&, i](auto, auto error) {
      EXPECT_EQ(answered++, i);
      EXPECT_EQ(kind(*error), refused);
      if (i == 10) inside = MainQueue::drain();
    });
  }
  platform::GeneralExecutor::post([&] { allThere.count_down(); });
  allThere.wait();
  testing::internal::CaptureStderr();
  std::jthread([] { EXPECT_EQ(MainQueue::drain(), 0U); }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "QuorvaSDK: MainQueue::drain was called on another thread than the application's\n");
  EXPECT_EQ(answered, 0);
  EXPECT_EQ(MainQueue::drain(), 11U);
  EXPECT_EQ(inside, count - 11U);
  EXPECT_EQ(answered, count);
}

// Throws whatever it's told.
struct Thrower : QuorvaDelegate {
  void quorvaDidInitialize(const QVConfiguration&) override { fail("initialized"); }
  void quorvaDidFailToInitialize(const Error&) override { fail("not initialized"); }
  void quorvaDidResolveDeepLink(const URL&, const Metadata&) override { fail("resolved"); }
  void quorvaDidFailToResolveDeepLink(const std::optional<URL>&, const Error&) override {
    fail("not resolved");
  }
  static void fail(const char* what) { throw std::runtime_error(what); }
};

// What leaves the queue next.
std::string thrown() {
  try {
    static_cast<void>(drainUntil([] { return false; }));
  } catch (const std::runtime_error& exception) {
    return exception.what();
  }
  return "nothing";
}

TEST_F(Host, MayThrowFromItsDelegateAndMissesNothing) {
  const auto initialize = [](const char* key) {
    Quorva::initialize(QVConfiguration(key, true, std::make_shared<Thrower>()));
  };
  Console console;
  answer("retrieveDeviceId", 500, "{}");
  answer("getAnyDeferredDeeplinks", 500, "{}");
  initialize("qk");
  EXPECT_EQ(thrown(), "not initialized");

  answer("retrieveDeviceId", 200, R"({"uuid":"u-1"})");
  initialize("qk");
  EXPECT_EQ(thrown(), "initialized");
  EXPECT_EQ(StorageKeys::anonymousId.get(), "u-1");
  EXPECT_FALSE(StorageKeys::firstLaunch.get()) << "the question is about to be asked";
  EXPECT_EQ(thrown(), "not resolved") << "and has an answer";

  StorageKeys::firstLaunch.set(true);
  answer("getAnyDeferredDeeplinks", 200, R"({"match_found":true,"destination_url":"https://d"})");
  EXPECT_THROW(initialize("other"), std::runtime_error) << "with an identifier, at once";
  EXPECT_EQ(StorageKeys::apiKey.get(), "other");
  EXPECT_EQ(thrown(), "resolved");

  EXPECT_EQ(console.waitForLines(6).size(), 6U) << "two initializations, pings and failures";
}

TEST_F(Host, MayThrowFromItsCompletions) {
  store("qk", "u-1");
  const QVDynamicLinkBuilder link("https://d", "go");
  Quorva::initialize(QVConfiguration("qk", false, nullptr));
  std::multiset<std::string> left{"completion", "start", "stop"};
  Quorva::createDynamicLink(link, [](auto, auto) { Thrower::fail("completion"); });
  start(Quorva::createDynamicLink(link), [](const auto&) { Thrower::fail("start"); });
  MainQueue::post([] {
    MainQueue::stop();
    Thrower::fail("stop");
  });
  while (!left.empty()) {
    try {
      MainQueue::run();
    } catch (const std::runtime_error& exception) {
      EXPECT_EQ(left.erase(exception.what()), 1U) << exception.what();
    }
  }
}

class EnduranceHost : public Host {
 protected:
  EnduranceHost() { EXPECT_EQ(runNasty("install"), 0); }

  // A server for one host, whose connections go with it.
  ScriptedServer ownServer() const {
    return {identity, [](const auto&) {
              return Reply::json(
                  200,
                  R"({"uuid":"u-1","short_url":"https://go/x","destination_url":"https://d"})");
            }};
  }

  // Has a host do something `count` times, of which it holds no more at the end than half-way: KiB
  // resident, open descriptors, threads.
  void expectFlat(const std::string& program, const std::string& way, int count) const {
    const ScriptedServer own = ownServer();
    Process process = host(program, way + " " + std::to_string(count), own.port());
    const std::string output = process.rest();
    EXPECT_EQ(process.end(), 0);
    std::istringstream text(output);
    std::array<long, 3> before{}, after{};
    for (auto* held : {&before, &after})
      for (long& figure : *held) text >> figure;
    EXPECT_TRUE(text) << output;
    EXPECT_TRUE(isSanitized || after[0] <= before[0] + 1024) << output;
    EXPECT_LE(after[1], before[1] + 6) << output;  // connections come and go
    EXPECT_LE(after[2], before[2]) << output;
    std::printf("%d times: %s", count, output.c_str());
  }
};

TEST_F(EnduranceHost, MayEndAtAnyMoment) {
  const auto seed = std::random_device{}();
  std::minstd_rand random(seed);
  const auto pick = [&](std::initializer_list<std::string> from) {
    return *(from.begin() + random() % from.size());
  };
  const auto begun = Clock::now();
  double longest = 0;
  const int count = rounds(20, 500);
  for (int i = 0; i < count; ++i) {
    const std::string how = pick({"exit", "quick_exit", "_exit", "return"});
    const std::string when = pick({"call", "answer", "thread"});
    const auto number = 1 + random() % 100;
    const int status = 100 + i % 100;
    const std::string way = "end " + how + " " + when + " " + std::to_string(number) + " ";
    SCOPED_TRACE(way);
    ScriptedServer own = ownServer();
    const auto started = Clock::now();
    Process process = host(QUORVA_NASTY_PROGRAM, way + std::to_string(status), own.port());
    if (when == "thread") {
      own.waitForRequest(number % 20);  // a queue that is never emptied lets 25 begin
      process.tell();
    }
    EXPECT_EQ(process.end(), status);
    longest = std::max(longest, secondsSince(started));
  }
  std::printf("%d ends with 100 requests under way in %.1f s, the longest took %.2f s; seed %u\n",
              count, secondsSince(begun), longest, seed);
}

TEST_F(EnduranceHost, LosesTrackOfNothing) {
  expectFlat(QUORVA_NASTY_PROGRAM, "flood", rounds(2000, 200'000));
}

TEST_F(EnduranceHost, MayUnloadTheLibraryWhileItWorks) {
  expectFlat(QUORVA_LOADER_PROGRAM, "'" QUORVA_LOADABLE_LIBRARY "'", rounds(20, 200));
}

}  // namespace
}  // namespace quorva
