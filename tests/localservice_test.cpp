#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/Support.h"

namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* kDevices = "/app/api/v1/retrieveDeviceId";
constexpr const char* kPing = "/app/api/v1/device_ping";
constexpr const char* kLinks = "/app/api/v1/create_link";
constexpr const char* kKey = "key-of-the-shop";
constexpr const char* kRefusedKey = "key-that-is-refused";

// The program as a child process, with what it prints.
class Program {
 public:
  // Signals that come before the program cares for them are held back, not lost.
  explicit Program(std::vector<std::string> words) {
    words.insert(words.begin(), QUORVA_LOCALSERVICE_PROGRAM);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);

    std::array<int, 2> out{};
    std::array<int, 2> errors{};
    EXPECT_EQ(::pipe2(out.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(errors.data(), O_CLOEXEC), 0);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, errors[1], STDERR_FILENO);
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGTERM);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes, &held);
    EXPECT_EQ(
        ::posix_spawn(&process_, arguments[0], &files, &attributes, arguments.data(), environ), 0);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    ::close(out[1]);
    ::close(errors[1]);
    out_.reset(::fdopen(out[0], "r"));
    errors_.reset(::fdopen(errors[0], "r"));
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    if (process_ > 0) end(SIGKILL);
  }

  // The next line it prints, empty once it prints no more.
  std::string line() { return next(out_.get()); }
  std::string error() { return next(errors_.get()); }

  // Its exit status, which is its own if it ended before the signal.
  int end(int signal) {
    ::kill(process_, signal);
    int status = 0;
    ::waitpid(std::exchange(process_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static std::string next(FILE* file) {
    std::array<char, 4096> text{};
    return std::fgets(text.data(), text.size(), file) == nullptr ? "" : text.data();
  }

  using File = std::unique_ptr<FILE, decltype(&std::fclose)>;
  File out_{nullptr, std::fclose};
  File errors_{nullptr, std::fclose};
  pid_t process_ = 0;
};

struct Answer {
  int status;
  json body;
};

class LocalService : public testing::Test {
 protected:
  void SetUp() override {
    authority_ = state() + "/ca.pem";
    start();
  }
  void TearDown() override {
    if (service_) stop(SIGTERM);
  }

  void start() {
    service_.emplace(std::vector<std::string>{"--directory", state(), "--host", "service.test",
                                              "--refuse-key", "another", "--refuse-key",
                                              kRefusedKey});
    const std::string line = service_->line();
    const std::string beforePort = "quorva-localservice listening on https://127.0.0.1:";
    ASSERT_TRUE(line.starts_with(beforePort)) << line << service_->error();
    port_ = std::stoi(line.substr(beforePort.size()));
    EXPECT_EQ(line, beforePort + std::to_string(port_) + " (certificate authority: " + state() +
                        "/ca.pem)\n");
  }

  void stop(int signal) {
    EXPECT_EQ(service_->end(signal), 0);
    EXPECT_EQ(service_->error(), "");
    service_.reset();
  }

  std::string state() const { return directory_.path() / "state"; }

  Answer ask(const std::string& method, const std::string& path, const std::string& body) const {
    httplib::SSLClient client(host_, port_);
    client.set_hostname_addr_map({{host_, "127.0.0.1"}});
    client.set_ca_cert_path(authority_.c_str());
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.body = body;
    const httplib::Result result = client.send(request);
    if (!result) return {0, httplib::to_string(result.error())};
    EXPECT_EQ(result->get_header_value("Content-Type"), "application/json");
    return {result->status, json::parse(result->body)};
  }

  Answer post(const std::string& path, const json& body) const {
    return ask("POST", path, body.dump());
  }

  std::string newDevice() const {
    return post(kDevices, {{"data", {{"os", "linux"}}}, {"api_key", kKey}, {"ref_id", ""}})
        .body.value("uuid", "none");
  }

  static json ping(const std::string& device) {
    return {{"api_key", kKey},     {"device_id", device}, {"device_info", json::object()},
            {"platform", "linux"}, {"lib", "cpp"},        {"lib_version", "1.0.0"}};
  }

  static json link(const std::string& device) {
    return {{"api_key", kKey},
            {"device_id", device},
            {"android_behavior", 1},
            {"destination_url", "https://shop.example/spring"},
            {"domain", "go.shop.example"},
            {"ios_behavior", 2}};
  }

  const quorva::test::TemporaryDirectory directory_;
  std::filesystem::path authority_;
  std::string host_ = "127.0.0.1";
  int port_ = 0;
  std::optional<Program> service_;
};

json with(json object, const json& changes) {
  object.merge_patch(changes);  // null takes a key away
  return object;
}

TEST_F(LocalService, AnswersEachRequestWithItsOutcome) {
  const std::string device = newDevice();
  EXPECT_THAT(device,
              MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  EXPECT_NE(newDevice(), device);

  const json newcomer{{"data", json::object()}, {"api_key", kKey}, {"ref_id", "friend"}};
  const json ping = LocalService::ping(device);
  const json link = LocalService::link(device);
  json deep = json::object();
  for (int depth = 0; depth < 20; ++depth) deep = {{"data", deep}};
  const struct {
    const char* path;
    json body;
    int status;
    std::string says;  // a regular expression found in the whole answer
  } cases[] = {
      {kDevices, with(newcomer, {{"api_key", kRefusedKey}}), 401, "API key was refused"},
      {kDevices, with(newcomer, {{"api_key", " "}}), 401, "API key was refused"},
      {kDevices, with(newcomer, {{"data", nullptr}}), 400, "data.* is missing"},
      {kDevices, with(newcomer, {{"data", "text"}}), 400, "data.* must be an object"},
      {kDevices, with(newcomer, deep), 400, "must be a JSON object"},
      {kDevices, json::array(), 400, "must be a JSON object"},
      {kPing, ping, 200, R"(\{"status":"ok"\})"},
      {kPing, with(ping, {{"lib", nullptr}}), 400, "lib.* is missing"},
      {kPing, with(ping, {{"device_id", "nobody"}}), 400, "device_id"},
      {kLinks, link, 201, R"("https://go\.shop\.example/[a-z0-9]{8}")"},
      {kLinks, with(link, {{"selected_path", ""}}), 201, "go.shop.example/[a-z0-9]{8}\""},
      {kLinks, with(link, {{"selected_path", "spring"}, {"utm_term", "x"}}), 201,
       R"("https://go\.shop\.example/spring","status":"created")"},
      {kLinks, with(link, {{"selected_path", "spring"}}), 400,
       "spring.* already exists on go.shop"},
      {kLinks, with(link, {{"selected_path", "spring"}, {"domain", "GO.Shop.example"}}), 400,
       "already exists"},
      {kLinks, with(link, {{"selected_path", "Spring"}}), 201, "/Spring\""},
      {kLinks, with(link, {{"selected_path", "spring"}, {"domain", "a.example"}}), 201,
       "a.example"},
      {kLinks, with(link, {{"api_key", "a stranger's"}}), 400, "api_key"},
      {kLinks, with(link, {{"api_key", kRefusedKey}}), 401, "API key was refused"},
      {kLinks, with(link, {{"domain", ""}}), 400, "domain.* must be"},
      {kLinks, with(link, {{"destination_url", nullptr}}), 400, "destination_url.* is missing"},
      {kLinks, with(link, {{"ios_behavior", 3}}), 400, "ios_behavior.* must be 1 or 2"},
      {kLinks, with(link, {{"android_behavior", "1"}}), 400, "android_behavior"},
      {kLinks, with(link, {{"utm_source", 7}}), 400, "utm_source.* must be text"},
      {kLinks, with(link, {{"selected_path", "';DROP TABLE link;--"}}), 201, "DROP"},
      {kLinks, with(link, {{"link_name", std::string(1024 * 1024, 'x')}}), 413, "larger than"},
      {"/app/api/v1/resolve", link, 404, "nothing at /app/api/v1/resolve"},
  };
  for (const auto& [path, body, status, says] : cases) {
    const Answer answer = post(path, body);
    EXPECT_EQ(answer.status, status) << path << ' ' << answer.body;
    EXPECT_THAT(answer.body.dump(), ContainsRegex(says));
  }

  EXPECT_EQ(ask("POST", kLinks, "{\"api_key\":").status, 400);
  EXPECT_EQ(ask("GET", kLinks, "").status, 405);
  EXPECT_EQ(ask("DELETE", "/app/", "").status, 404);
}

TEST_F(LocalService, KeepsDevicesLinksAndAuthorityOverARestart) {
  const json link = with(LocalService::link(newDevice()), {{"selected_path", "kept"}});
  EXPECT_EQ(post(kLinks, link).status, 201);
  const std::filesystem::path trusted = directory_.path() / "trusted.pem";
  std::filesystem::copy_file(authority_, trusted);
  stop(SIGTERM);

  start();
  authority_ = trusted;
  host_ = "service.test";
  EXPECT_EQ(post(kLinks, link).body.value("detail", ""),
            "The path \"kept\" already exists on go.shop.example");
}

TEST_F(LocalService, LetsOneOfManyHaveAPath) {
  const json link = with(LocalService::link(newDevice()), {{"selected_path", "rush"}});
  std::vector<std::future<Answer>> answers;
  for (int i = 0; i < 8; ++i) {
    answers.push_back(std::async(std::launch::async, [&] { return post(kLinks, link); }));
  }
  std::multiset<int> statuses;
  for (auto& answer : answers) statuses.insert(answer.get().status);
  EXPECT_EQ(statuses.count(201), 1);
  EXPECT_EQ(statuses.count(400), 7);
}

TEST_F(LocalService, LogsEachRequestOnALineOfItsOwnWithoutTheKey) {
  const std::string start = "[-0-9]{10}T[:0-9]{8}Z POST ";
  newDevice();
  EXPECT_THAT(service_->line(), MatchesRegex(start + kDevices + " 200\n"));
  post(kDevices, {{"data", json::object()}, {"api_key", kRefusedKey}, {"ref_id", ""}});
  EXPECT_THAT(service_->line(), MatchesRegex(start + kDevices + " 401 The API key was refused\n"));
  post("/%0Aforged%FF", json::object());
  EXPECT_THAT(service_->line(), HasSubstr("/?forged"));

  std::filesystem::resize_file(state() + "/service.sqlite", 0);
  EXPECT_EQ(post(kPing, ping("any")).status, 500);
  EXPECT_THAT(service_->line(), HasSubstr(" 500 " + state() + "/service.sqlite"));
}

TEST_F(LocalService, KeepsItsStateToItsUser) {
  using std::filesystem::perms;
  for (const auto& [file, expected] :
       std::map<std::string, perms>{{"", perms::owner_all},
                                    {"/ca-key.pem", perms::owner_read | perms::owner_write},
                                    {"/service.sqlite", perms::owner_read | perms::owner_write}}) {
    EXPECT_EQ(std::filesystem::status(state() + file).permissions(), expected) << file;
  }
}

TEST_F(LocalService, EndsOnASignalHoweverEarly) {
  Program early({"--directory", directory_.path() / "early"});
  EXPECT_EQ(early.end(SIGTERM), 0);
  stop(SIGINT);
}

TEST_F(LocalService, RefusesToStartWithOneLine) {
  const auto damaged = [&](const std::string& file) {
    const std::filesystem::path directory = directory_.path() / ("damaged-" + file);
    std::filesystem::create_directory(directory);
    quorva::test::writeFile(directory / file, "neither a database nor a certificate");
    return directory.string();
  };
  const struct {
    std::vector<std::string> words;
    int status;
    std::string says;
  } cases[] = {
      {{}, 2, "--directory"},
      {{"--directory"}, 2, "--directory needs a value"},
      {{"--directory", state(), "--port", "65536"}, 2, "--port"},
      {{"--directory", state(), "--port", "80x"}, 2, "--port"},
      {{"--directory", state(), "--colour", "red"}, 2, "--colour"},
      {{"--directory", state(), "--port", std::to_string(port_)}, 1, "already in use"},
      {{"--directory", state() + "/ca.pem/below"}, 1, "Not a directory"},
      {{"--directory", damaged("ca.pem")}, 1, "ca.pem is damaged"},
      {{"--directory", damaged("service.sqlite")}, 1, "not a database"},
  };
  for (const auto& [words, status, says] : cases) {
    Program program(words);
    EXPECT_EQ(program.line(), "") << says;
    EXPECT_EQ(program.end(SIGTERM), status) << says;
    EXPECT_THAT(program.error(), MatchesRegex("quorva-localservice: .*" + says + ".*\n"));
    EXPECT_EQ(program.error(), "") << says;
  }
}

}  // namespace
