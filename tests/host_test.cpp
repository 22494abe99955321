// The library in a process of its own: what a second start finds, what an end at any moment does,
// and what else a host may do to itself without the library being the reason for its end.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <latch>
#include <random>
#include <sstream>

#include "platform/GeneralExecutor.h"
#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Console;
using test::drainUntil;
using test::Reply;
using test::rounds;
using test::ScriptedServer;
using Arguments = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;  // and holds much memory of its own
#else
constexpr bool isSanitized = false;
#endif

// A program that was started, with pipes for its standard input and output.
class Program {
 public:
  explicit Program(Arguments arguments) {
    std::vector<char*> pointers;
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    EXPECT_TRUE(pipe2(input_.data(), O_CLOEXEC) == 0 && pipe2(output_.data(), O_CLOEXEC) == 0);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input_[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, output_[1], STDOUT_FILENO);
    EXPECT_EQ(posix_spawn(&process_, pointers[0], &files, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&files);
    close(output_[1]);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    for (const int fd : {input_[0], input_[1], output_[0]}) close(fd);
  }

  // Gives it a byte to read. It may have ended: this process holds the pipe's other end, too.
  void tell() const { EXPECT_EQ(write(input_[1], "!", 1), 1); }

  // Its status, or the signal that ended it as a negative number.
  [[nodiscard]] int end() const {
    int status = 0;
    waitpid(process_, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

  // What it prints until it ends.
  [[nodiscard]] std::string output() const {
    std::string text;
    std::array<char, 256> bytes;
    for (ssize_t count; (count = read(output_[0], bytes.data(), bytes.size())) > 0;)
      text.append(bytes.data(), static_cast<std::size_t>(count));
    return text;
  }

 private:
  pid_t process_ = -1;
  std::array<int, 2> input_{};
  std::array<int, 2> output_{};
};

class Host : public test::ServiceFixture {
 protected:
  Host() {
    setenv("XDG_DATA_HOME", installation_.path().c_str(), 1);
    answer("retrieveDeviceId", Reply::json(200, R"({"uuid":"u-1"})"));
    answer("create_link", Reply::json(201, R"({"short_url":"https://go/x"})"));
    answer("resolve", Reply::json(200, R"({"destination_url":"https://d"})"));
  }

  // How to start a host whose requests go to `port`.
  Arguments host(std::string program, const Arguments& more, std::uint16_t port) const {
    Arguments arguments{std::move(program), std::to_string(port), caFile};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  Arguments nasty(const Arguments& way, std::uint16_t port) const {
    return host(QUORVA_NASTY_PROGRAM, way, port);
  }

  // How such hosts end that use the fixture's server.
  int run() const { return Program(host(QUORVA_HOST_PROGRAM, {}, server.port())).end(); }
  int runNasty(const Arguments& way) const { return Program(nasty(way, server.port())).end(); }

  std::string lastIdentifier(const std::string& path, const char* key) const {
    return nlohmann::json::parse(sent(path).back().body).at(key);
  }

 private:
  const test::TemporaryDirectory installation_;
};

TEST_F(Host, WithoutExceptionsOrTypeInformationCanDoEverything) {
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(sent("create_link").size(), 2U);
  answer("create_link", Reply::json(500, "{}"));
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
  EXPECT_EQ(runNasty({"kill"}), -SIGKILL);
  EXPECT_EQ(runNasty({"install"}), 0);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
}

TEST_F(Host, MayStartProgramsThatInheritNothing) {
  EXPECT_EQ(runNasty({"install"}), 0);
  EXPECT_EQ(runNasty({"spawn"}), 0);
}

TEST_F(Host, MayHaveNothingLeftForTheLibraryForAWhile) {
  EXPECT_EQ(runNasty({"install"}), 0);
  for (const char* what : {"descriptors", "threads"})
    EXPECT_EQ(runNasty({"scarce", what}), 0) << what;
}

// A wire to a server that is cut again and again: of a client's connections, each is reset when so
// many of the client's bytes have passed, 1 on the first, 2 on the second, then 4, up to 64 KiB.
class CutWire {
 public:
  explicit CutWire(std::uint16_t server) : server_(server) {
    socklen_t size = sizeof address_;
    bind(listener_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &size);
    listen(listener_, SOMAXCONN);
    acceptor_ = std::jthread([this] {
      std::vector<std::jthread> connections;
      for (int client = 0; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        const std::size_t bytes = std::size_t{1} << (connections.size() % 17);
        connections.emplace_back([this, client, bytes] { carry(client, bytes); });
      }
    });
  }
  CutWire(const CutWire&) = delete;
  CutWire& operator=(const CutWire&) = delete;
  ~CutWire() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    close(listener_);
  }

  [[nodiscard]] std::uint16_t port() const { return ntohs(address_.sin_port); }

 private:
  void carry(int client, std::size_t bytes) const {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to{AF_INET, htons(server_), {htonl(INADDR_LOOPBACK)}, {}};
    connect(server, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    std::array<char, 4096> chunk;
    const auto pass = [&](int from, int target, std::size_t most) {
      const ssize_t count = recv(from, chunk.data(), std::min(most, chunk.size()), 0);
      if (count > 0) send(target, chunk.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL);
      return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    };
    while (bytes > 0) {
      std::array ends{pollfd{client, POLLIN, 0}, pollfd{server, POLLIN, 0}};
      poll(ends.data(), ends.size(), -1);
      if (ends[1].revents && pass(server, client, chunk.size()) == 0) break;
      if (!ends[0].revents) continue;
      const std::size_t passed = pass(client, server, bytes);
      if (passed == 0) break;
      bytes -= passed;
    }
    constexpr linger reset{1, 0};
    setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(client);
    close(server);
  }

  const std::uint16_t server_;
  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  std::jthread acceptor_;
};

TEST_F(Host, HearsOfNoBrokenPipe) {
  EXPECT_EQ(runNasty({"install"}), 0);
  for (const char* handling : {"default", "ignored", "handled"}) {
    CutWire wire(server.port());
    EXPECT_EQ(Program(nasty({"pipes", handling}, wire.port())).end(), 0) << handling;
  }
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
  answer("retrieveDeviceId", Reply::json(500, "{}"));
  answer("getAnyDeferredDeeplinks", Reply::json(500, "{}"));
  initialize("qk");
  EXPECT_EQ(thrown(), "not initialized");

  answer("retrieveDeviceId", Reply::json(200, R"({"uuid":"u-1"})"));
  initialize("qk");
  EXPECT_EQ(thrown(), "initialized");
  EXPECT_EQ(StorageKeys::anonymousId.get(), "u-1");
  EXPECT_FALSE(StorageKeys::firstLaunch.get()) << "the question is about to be asked";
  EXPECT_EQ(thrown(), "not resolved") << "and has an answer";

  StorageKeys::firstLaunch.set(true);
  answer("getAnyDeferredDeeplinks",
         Reply::json(200, R"({"match_found":true,"destination_url":"https://d"})"));
  EXPECT_THROW(initialize("other"), std::runtime_error) << "with an identifier, at once";
  EXPECT_EQ(StorageKeys::apiKey.get(), "other");
  EXPECT_EQ(thrown(), "resolved");

  const std::string failed = Error(URLError(URLError::Code::badServerResponse)).what();
  const std::string initialized =
      "[✅ SUCCESS] [QuorvaSDK] initialize(config:): Quorva SDK Intialized!";
  const std::string pinged = "[✅ SUCCESS] [QVNetworkManager] devicePing(): SDK ping successful";
  const auto lines = console.waitForLines(6);
  EXPECT_EQ(
      std::multiset(lines.begin(), lines.end()),
      (std::multiset{
          "[❌ ERROR] [QuorvaSDK] initialize(config:): " + failed, initialized, pinged,
          "[❌ ERROR] [QuorvaSDK] getDeferredDeepLink(): Quorva DeepLink fetch failed: " + failed,
          initialized, pinged}));
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

const std::string everything =
    R"({"uuid":"u-1","short_url":"https://go/x","destination_url":"https://d"})";

class EnduranceHost : public Host {
 protected:
  EnduranceHost() { EXPECT_EQ(runNasty({"install"}), 0); }

  // What the lines that a program prints say: KiB resident, open descriptors, threads.
  using Holdings = std::array<long, 3>;
  static std::vector<Holdings> holdings(const std::string& output) {
    std::vector<Holdings> lines;
    std::istringstream text(output);
    for (Holdings line; text >> line[0] >> line[1] >> line[2];) lines.push_back(line);
    return lines;
  }

  // That a process held at the end no more than it did before.
  static void expectFlat(const std::string& output) {
    const auto lines = holdings(output);
    ASSERT_EQ(lines.size(), 2U) << output;
    const auto& [before, after] = std::tie(lines[0], lines[1]);
    EXPECT_TRUE(isSanitized || after[0] <= before[0] + 1024) << output;
    EXPECT_LE(after[1], before[1] + 6) << output;  // connections come and go
    EXPECT_LE(after[2], before[2]) << output;
  }

  static std::string pick(std::minstd_rand& random, const Arguments& from) {
    return from[random() % from.size()];
  }

  const localservice::Identity identity = authority().issue({serviceHost()});
};

TEST_F(EnduranceHost, MayEndAtAnyMoment) {
  const auto seed = std::random_device{}();
  std::minstd_rand random(seed);
  const auto begin = Clock::now();
  Clock::duration longest{};
  const int count = rounds(20, 500);
  for (int i = 0; i < count; ++i) {
    const std::string how = pick(random, {"exit", "quick_exit", "_exit", "return"});
    const std::string when = pick(random, {"call", "answer", "thread"});
    const auto number = 1 + random() % 100;
    const int status = 100 + i % 100;
    SCOPED_TRACE(how + " " + when + " " + std::to_string(number));
    ScriptedServer own(identity, [](const auto&) { return Reply::json(200, everything); });
    const auto started = Clock::now();
    const Program program(
        nasty({"end", how, when, std::to_string(number), std::to_string(status)}, own.port()));
    if (when == "thread") {
      own.waitForRequest(number % 20);  // a queue that is never emptied lets 25 begin
      program.tell();
    }
    EXPECT_EQ(program.end(), status);
    longest = std::max(longest, Clock::now() - started);
  }
  const std::chrono::duration<double> all = Clock::now() - begin;
  std::printf("%d ends with 100 requests under way in %.1f s, the longest took %.2f s; seed %u\n",
              count, all.count(), std::chrono::duration<double>(longest).count(), seed);
}

TEST_F(EnduranceHost, LosesTrackOfNothing) {
  const int count = rounds(2000, 200'000);
  ScriptedServer own(identity, [](const auto&) { return Reply::json(200, everything); });
  const Program program(nasty({"flood", std::to_string(count)}, own.port()));
  const std::string output = program.output();
  EXPECT_EQ(program.end(), 0);
  expectFlat(output);
  std::printf("%d requests: %s", count, output.c_str());
}

TEST_F(EnduranceHost, MayUnloadTheLibraryWhileItWorks) {
  const int count = rounds(20, 200);
  ScriptedServer own(identity, [](const auto&) { return Reply::json(200, everything); });
  const Program program(
      host(QUORVA_LOADER_PROGRAM, {QUORVA_LOADABLE_LIBRARY, std::to_string(count)}, own.port()));
  const std::string output = program.output();
  EXPECT_EQ(program.end(), 0);
  expectFlat(output);
  std::printf("%d times unloaded: %s", count, output.c_str());
}

}  // namespace
}  // namespace quorva
