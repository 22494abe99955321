// The local service: its answers, and the program around them.

#include "localservice/Service.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <regex>

#include "platform/URLSession.h"
#include "tests/ScriptedServer.h"
#include "tests/Support.h"

namespace localservice {
namespace {

using nlohmann::json;
using quorva::platform::HTTPResponse;
using quorva::platform::Result;
using quorva::platform::URL;
using quorva::platform::URLRequest;
using quorva::platform::URLSession;

const std::string devices = "/app/api/v1/retrieveDeviceId";
const std::string pings = "/app/api/v1/device_ping";
const std::string links = "/app/api/v1/create_link";

const json newcomer = json::parse(R"({"api_key": "qk", "ref_id": "", "data": {}})");

json with(json object, const json& changes) {
  object.merge_patch(changes);  // null takes a key away
  return object;
}

class LocalService : public testing::Test {
 protected:
  Answer post(const std::string& path, const json& body) {
    return answer(service, "POST", path, body.dump());
  }
  json newLink() {
    const json device = post(devices, newcomer).body.at("uuid");
    return with(json::parse(
                    R"({"api_key": "qk", "android_behavior": 1, "ios_behavior": 2,
                                "destination_url": "https://d", "domain": "go.shop.example"})"),
                {{"device_id", device}});
  }

  const quorva::test::TemporaryDirectory directory;
  Store store{directory.path() / "service.sqlite"};
  const Service service{store, {"refused"}};
};

TEST_F(LocalService, AnswersEachRequestWithItsOutcome) {
  const json link = newLink();
  const json ping = with(
      json::parse(
          R"({"api_key": "qk", "device_info": {}, "platform": "p", "lib": "l", "lib_version": "1"})"),
      {{"device_id", link["device_id"]}});
  json deep = json::object();
  for (int depth = 0; depth < 20; ++depth) deep = {{"data", deep}};
  const std::tuple<std::string, json, int, const char*> rows[] = {
      {devices, newcomer, 200,
       R"("uuid":"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")"},
      {devices, with(newcomer, {{"api_key", "refused"}}), 401, "API key was refused"},
      {devices, with(newcomer, {{"api_key", " "}}), 401, "API key was refused"},
      {devices, with(newcomer, {{"data", nullptr}}), 400, "data.* is missing"},
      {devices, with(newcomer, deep), 400, "must be a JSON object"},
      {devices, json::array(), 400, "must be a JSON object"},
      {pings, ping, 200, R"(\{"status":"ok"\})"},
      {pings, with(ping, {{"lib", nullptr}}), 400, "lib.* is missing"},
      {pings, with(ping, {{"device_id", "nobody"}}), 400, "device_id"},
      {links, link, 201, R"("https://go\.shop\.example/[a-z0-9]{8}")"},
      {links, with(link, {{"selected_path", ""}}), 201, "/[a-z0-9]{8}\""},
      {links, with(link, {{"selected_path", "spring"}}), 201,
       R"(example/spring","status":"created")"},
      {links, with(link, {{"selected_path", "spring"}}), 400, "spring.* already exists on go.shop"},
      {links, with(link, {{"selected_path", "spring"}, {"domain", "GO.Shop.example"}}), 400,
       "exists"},
      {links, with(link, {{"selected_path", "spring"}, {"domain", "a.example"}}), 201, "a.example"},
      {links, with(link, {{"api_key", "a stranger's"}}), 400, "api_key"},
      {links, with(link, {{"api_key", "refused"}}), 401, "API key was refused"},
      {links, with(link, {{"domain", ""}}), 400, "domain.* must be"},
      {links, with(link, {{"destination_url", nullptr}}), 400, "destination_url.* is missing"},
      {links, with(link, {{"ios_behavior", 3}}), 400, "ios_behavior.* must be 1 or 2"},
      {links, with(link, {{"utm_source", 7}}), 400, "utm_source.* must be text"},
      {links, with(link, {{"selected_path", "';DROP TABLE link;--"}}), 201, "DROP"},
      {links, with(link, {{"link_name", std::string(1 << 20, 'x')}}), 413, "larger than"},
      {"/app/api/v1/resolve", link, 404, "nothing at /app/api/v1/resolve"}};
  for (const auto& [path, body, status, says] : rows) {
    const Answer given = post(path, body);
    EXPECT_EQ(given.status, status) << path << ' ' << given.body;
    EXPECT_TRUE(std::regex_search(given.body.dump(), std::regex(says))) << given.body;
  }
  EXPECT_EQ(answer(service, "GET", links, "").status, 405);
}

TEST_F(LocalService, LetsOneOfManyHaveAPathAndRemembersIt) {
  const json link = with(newLink(), {{"selected_path", "rush"}});
  std::vector<std::future<Answer>> answers;
  for (int i = 0; i < 8; ++i)
    answers.push_back(std::async(std::launch::async, [&] { return post(links, link); }));
  int created = 0;
  for (auto& given : answers) created += given.get().status == 201 ? 1 : 0;
  EXPECT_EQ(created, 1);
  Store reopened(directory.path() / "service.sqlite");
  EXPECT_EQ(answer({reopened, {}}, "POST", links, link.dump()).status, 400);
}

// Runs the program with `arguments` until it ends or has printed its first
// line.
struct Program {
  explicit Program(const std::string& arguments)
      : output(popen(
            ("echo $$; exec '" QUORVA_LOCALSERVICE_PROGRAM "' " + arguments + " 2>&1").c_str(),
            "r")),
        process(std::stoi(line())) {}
  std::string line() const {
    std::array<char, 1024> text{};
    return std::fgets(text.data(), text.size(), output) ? text.data() : "";
  }
  int end() const { return WEXITSTATUS(pclose(output)); }

  FILE* const output;
  const pid_t process;
};

TEST_F(LocalService, ServesOverHTTPSLogsALineEachAndEndsOnSIGTERM) {
  const Program program("--directory " + directory.path().string() + " --host service.example");
  std::smatch match;
  const std::string line = program.line();
  ASSERT_TRUE(std::regex_search(line, match, std::regex("https://127.0.0.1:([0-9]+) .*: (.*)\\)")))
      << line;
  URLSession::route("service.example",
                    {static_cast<std::uint16_t>(std::stoi(match[1])), match[2].str()});
  URLRequest request(URL::parse("https://service.example" + devices).value());
  request.body = with(newcomer, {{"api_key", "my secret"}}).dump();
  std::optional<Result<HTTPResponse>> reply;
  start(URLSession::post(std::move(request)),
        [&](Result<HTTPResponse> result) { reply = std::move(result); });
  ASSERT_TRUE(quorva::test::drainUntil([&] { return reply.has_value(); }));
  EXPECT_EQ((*reply)->statusCode, 200);
  EXPECT_TRUE(std::regex_match(program.line(),
                               std::regex("[-0-9]{10}T[:0-9]{8}Z POST " + devices + " 200\n")));
  kill(program.process, SIGTERM);
  EXPECT_EQ(program.line(), "");
  EXPECT_EQ(program.end(), 0);
}

TEST_F(LocalService, RefusesToStartWithOneLine) {
  const std::string good = "--directory " + directory.path().string();
  quorva::test::writeFile(directory.path() / "damaged" / "service.sqlite", std::string(4096, 'x'));
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", 2, "--directory is missing"},
      {"--directory", 2, "--directory needs a value"},
      {good + " --port 65536", 2, "--port must be"},
      {good + " --colour red", 2, "--colour is unknown"},
      {good + " --port " + std::to_string(quorva::test::unusedPort()), 1, "already in use"},
      {good + "/service.sqlite/below", 1, "Not a directory"},
      {good + "/damaged", 1, "not a database"}};
  for (const auto& [arguments, status, says] : rows) {
    const Program program(arguments);
    const std::string line = program.line();
    EXPECT_TRUE(line.starts_with("quorva-localservice: ") && line.find(says) != line.npos) << line;
    EXPECT_EQ(program.line(), "") << says;
    EXPECT_EQ(program.end(), status) << says;
  }
}

}  // namespace
}  // namespace localservice
