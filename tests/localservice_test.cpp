// The local service: its answers, and the program around them.

#include "localservice/Service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <regex>

#include "localservice/LinkPage.h"
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
const std::string resolves = "/app/api/v1/resolve";
const std::string deferred = "/app/api/v1/getAnyDeferredDeeplinks";
const std::string home = "127.0.0.1";

const json newcomer = json::parse(R"({"api_key": "qk", "ref_id": "", "data": {}})");

json with(json object, const json& changes) {
  object.merge_patch(changes);  // null takes a key away
  return object;
}

class LocalService : public testing::Test {
 protected:
  Answer post(const std::string& path, const json& body) {
    return answer(service, {"POST", path, body.dump(), home});
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
  const Service service{store, {"refused"}, "shop"};
};

TEST_F(LocalService, AnswersEachRequestWithItsOutcome) {
  const json link = newLink();
  const json ping = with(
      json::parse(
          R"({"api_key": "qk", "device_info": {}, "platform": "p", "lib": "l", "lib_version": "1"})"),
      {{"device_id", link["device_id"]}});
  const json asker{{"api_key", "qk"}, {"device_uuid", link["device_id"]}};
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
      {links, with(link, {{"domain", "https://a.example"}}), 400, "No link can be made"},
      {links, with(link, {{"selected_path", "a\nb"}}), 400, "No link can be made"},
      {links, with(link, {{"selected_path", "a b/ü?"}}), 201, "example/a%20b/%c3%bc%3f"},
      {resolves, with(asker, {{"short_url", "shop://GO.shop.example/a%20b/%C3%BC%3F?c#d"}}), 200,
       R"(^\{"destination_url":"https://d"\}$)"},
      {resolves, with(asker, {{"short_url", "https://go.shop.example:443/spring"}}), 200,
       "https://d"},
      {resolves, with(asker, {{"short_url", "https://go.shop.example/Spring"}}), 404, "no link"},
      {resolves, with(asker, {{"short_url", "spring"}}), 404, "no link"},
      {resolves, with(asker, {{"short_url", ""}}), 400, "short_url.* must be"},
      {resolves, with(asker, {{"short_url", "https://d"}, {"device_uuid", "nobody"}}), 400,
       "device_uuid"},
      {deferred, asker, 200, R"(^\{"match_found":false\}$)"},
      {deferred, with(asker, {{"device_uuid", nullptr}}), 400, "device_uuid.* is missing"},
      {"/app/api/v1/unknown", link, 404, "nothing at /app/api/v1/unknown"}};
  for (const auto& [path, body, status, says] : rows) {
    const Answer given = post(path, body);
    EXPECT_EQ(given.status, status) << path << ' ' << given.body;
    EXPECT_TRUE(std::regex_search(given.body.dump(), std::regex(says))) << given.body;
  }
  EXPECT_EQ(answer(service, {"GET", links, "", home}).status, 405);
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
  EXPECT_EQ(answer({reopened, {}, ""}, {"POST", links, link.dump(), home}).status, 400);
}

TEST_F(LocalService, ShowsABrowserWhereALinkLeads) {
  const json plain = with(newLink(), {{"selected_path", "a b"}, {"ios_behavior", 1}});
  const json rich = with(plain, {{"selected_path", "rich"},
                                 {"android_behavior", 2},
                                 {"social_title", "<T & \"t\">"},
                                 {"social_description", "D"},
                                 {"social_image_url", "https://i/i.png"},
                                 {"destination_url", "https://d/?a=b#c"},
                                 {"utm_source", "s&s"},
                                 {"utm_term", ""}});
  const json hostile = with(
      plain, {{"selected_path", "hostile"}, {"destination_url", "javascript://x/%0aalert(1)"}});
  for (const json& link : {plain, rich, hostile}) ASSERT_EQ(post(links, link).status, 201);
  const std::string phone = "Mozilla/5.0 (Linux; Android 14)";
  const std::tuple<const char*, const char*, std::string, int, const char*, const char*> rows[] = {
      {"go.shop.example", "/a%20b?x=1", "", 302, "https://d/", "go.shop.example/a%20b\\?x=1"},
      {"localhost:80", "/go.shop.example/a%20b", phone, 302, "https://d/", "Open in the app"},
      {"GO.SHOP.example:8080", "/rich", "", 302, "https://d/?a=b&utm_source=s%26s#c",
       "og:description\" content=\"D\""},
      {"go.shop.example", "/rich", phone, 200, "", "href=\"shop://go.shop.example/rich\""},
      {"go.shop.example", "/rich", phone, 200, "",
       "og:title\" content=\"&#60;T &#38; &#34;t&#34;&#62;"},
      {"go.shop.example", "/rich", phone, 200, "",
       "href=\"https://d/\\?a=b&#38;utm_source=s%26s#c"},
      {"go.shop.example", "/hostile", "", 200, "", "<p>Leads to javascript:"},
      {"other.example", "/rich", "", 404, "", "no such link"},
      {"", "/go.shop.example/none", "", 404, "", "no such link"},
      {"go.shop.example", "/favicon.ico", "", 404, "", "no such link"},
      {"go.shop.example", "*", "", 404, "", "no such link"}};
  for (const auto& [host, target, userAgent, status, location, says] : rows) {
    const Page page = visit(service, {"GET", host, target, userAgent, home});
    EXPECT_EQ(page.status, status) << host << target;
    EXPECT_EQ(page.location, location) << host << target;
    EXPECT_TRUE(std::regex_search(page.html, std::regex(says))) << page.html;
    EXPECT_EQ(page.html.find("<T"), page.html.npos);
  }
}

TEST_F(LocalService, HandsATapOnceToTheNextInstallationNearby) {
  json link = with(newLink(), {{"selected_path", "spring"}, {"utm_source", "s"}});
  ASSERT_EQ(post(links, link).status, 201);
  ASSERT_EQ(post(links, with(link, {{"selected_path", "autumn"}})).status, 201);
  const auto tap = [&](const char* path, const std::string& from, const char* method = "GET") {
    EXPECT_EQ(visit(service, {method, "go.shop.example", path, "", from}).status, 200);
  };
  const auto ask = [&](const Service& of) {
    const json asker{{"api_key", "qk"}, {"device_uuid", link["device_id"]}};
    return answer(of, {"POST", deferred, asker.dump(), home}).body;
  };
  const json none{{"match_found", false}};
  tap("/spring?via=poster", home);
  sqlite3* file = nullptr;
  sqlite3_open((directory.path() / "service.sqlite").c_str(), &file);
  sqlite3_exec(file, "UPDATE tap SET created = created - 3600", nullptr, nullptr, nullptr);
  tap("/spring", "127.0.0.2");
  tap("/spring", home, "HEAD");
  EXPECT_EQ(ask(service), none) << "too old, from elsewhere, or no tap";

  sqlite3_exec(file, "UPDATE tap SET created = created + 10", nullptr, nullptr, nullptr);
  sqlite3_close(file);
  tap("/autumn", home);
  Store reopened(directory.path() / "service.sqlite");
  const Service restarted{reopened, {}, ""};
  EXPECT_EQ(ask(restarted)["original_url"], "https://go.shop.example/autumn") << "the newest";
  EXPECT_EQ(ask(restarted), json::parse(R"({
      "match_found": true, "match_type": "network_address", "destination_url": "https://d",
      "original_url": "https://go.shop.example/spring?via=poster",
      "short_url": "https://go.shop.example/spring", "utm_params": {"utm_source": "s"}})"));
  EXPECT_EQ(ask(service), none) << "each only once";
}

// Runs a command until it ends; its output is read line by line.
struct Program {
  explicit Program(const std::string& command)
      : output(popen(("echo $$; exec " + command + " 2>&1").c_str(), "r")),
        process(std::stoi(line())) {}
  std::string line() const {
    std::array<char, 1024> text{};
    return std::fgets(text.data(), text.size(), output) ? text.data() : "";
  }
  std::string rest() const {
    std::string all;
    for (std::string next; !(next = line()).empty();) all += next;
    return all;
  }
  int end() const { return WEXITSTATUS(pclose(output)); }

  FILE* const output;
  const pid_t process;
};

const std::string serviceCommand = "'" QUORVA_LOCALSERVICE_PROGRAM "' ";

// The local service in a process of its own, on the directory's state.
struct ServiceProgram : Program {
  explicit ServiceProgram(const std::string& directory, const std::string& options = "")
      : Program(serviceCommand + "--directory " + directory + options),
        caFile(directory + "/ca.pem"),
        https(port("https")),
        http(port("http")) {}
  std::uint16_t port(const std::string& scheme) const {
    std::smatch match;
    const std::string text = line();
    if (!std::regex_search(text, match, std::regex(scheme + "://127.0.0.1:([0-9]+)"))) {
      throw std::runtime_error("the service didn't start: " + text);
    }
    return static_cast<std::uint16_t>(std::stoi(match[1]));
  }
  std::string stop() {
    kill(process, SIGTERM);
    std::string lines = log.get();
    EXPECT_EQ(end(), 0);
    return lines;
  }

  const std::string caFile;
  const std::uint16_t https;
  const std::uint16_t http;
  std::future<std::string> log = std::async([this] { return rest(); });
};

// A connection to `port` of an address of this machine; -1 if nobody listens there.
int connected(std::uint16_t port, in_addr_t machine = INADDR_LOOPBACK) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(port), {htonl(machine)}, {}};
  if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return socket;
  close(socket);
  return -1;
}

int openLink(std::uint16_t port, const std::string& target) {
  const int browser = connected(port);
  const std::string request =
      "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(send(browser, request.data(), request.size(), 0), ssize_t(request.size()));
  return browser;
}

std::string shownPage(int browser) {
  std::string page;
  std::array<char, 4096> bytes{};
  for (ssize_t count = 0; (count = recv(browser, bytes.data(), bytes.size(), 0)) > 0;)
    page.append(bytes.data(), static_cast<std::size_t>(count));
  close(browser);
  return page;
}

TEST_F(LocalService, StandsAThousandRequestsOfEachKindAtOnce) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  ServiceProgram program(directory.path(), " --host service.example");
  URLSession::route("service.example", {program.https, program.caFile});

  for (const std::uint16_t port : {program.https, program.http})
    EXPECT_EQ(connected(port, INADDR_LOOPBACK + 1), -1) << "127.0.0.1 is the only address";
  std::map<int, int> statuses;
  std::vector<int> browsers;
  for (int i = 0; i < 1000; ++i) {
    URLRequest request(URL::parse("https://service.example" + devices).value());
    request.body = with(newcomer, {{"api_key", "my secret"}}).dump();
    start(URLSession::post(std::move(request)),
          [&](Result<HTTPResponse> reply) { ++statuses[reply ? reply->statusCode : 0]; });
    browsers.push_back(openLink(program.http, "/go.shop.example/none"));
  }
  for (const int browser : browsers)
    EXPECT_TRUE(shownPage(browser).starts_with("HTTP/1.1 404 Not Found"));
  EXPECT_TRUE(quorva::test::drainUntil([&] { return statuses[200] == 1000; }));

  const std::string log = program.stop();
  const std::regex line("[-0-9]{10}T[:0-9]{8}Z (POST " + devices +
                        " 200|GET /go.shop.example/none 404)\n");
  const std::sregex_iterator lines(log.begin(), log.end(), line);
  EXPECT_EQ(std::distance(lines, std::sregex_iterator()), 2000);
  EXPECT_EQ(log.find("my secret"), log.npos);
}

// What a person does with two applications: makes a link with the one, taps it, installs the other.
TEST_F(LocalService, CarriesALinkAcrossAnInstallation) {
  const auto application = [&](const ServiceProgram& program, const std::string& rest) {
    const Program quickstart("env XDG_DATA_HOME=" + (directory.path() / "data").string() + " '" +
                             QUORVA_QUICKSTART_PROGRAM "' --port " + std::to_string(program.https) +
                             " --ca " + program.caFile + rest);
    const std::string printed = quickstart.rest();
    EXPECT_EQ(quickstart.end(), 0) << printed;
    return printed;
  };
  const std::string link = "https://go.shop.example/spring";
  const std::string before = "tapped before install:   " + link + "?via=poster\n";
  const std::string opened = "opened with:             " + link + "\n";
  const auto count = [](const std::string& text, const std::string& part) {
    const std::regex pattern(part);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), {});
  };
  {
    ServiceProgram program(directory.path());
    EXPECT_NE(application(program, "").find(opened), std::string::npos);
    shownPage(openLink(program.http, "/go.shop.example/spring?via=poster"));
    program.stop();
  }
  ServiceProgram program(directory.path());  // knows what the first one did
  EXPECT_NE(application(program, " --application other").find(before), std::string::npos);
  const std::string again = application(program, " --application other " + link);
  EXPECT_TRUE(again.find(opened) != again.npos && again.find("before") == again.npos) << again;
  const std::string log = program.stop();
  EXPECT_EQ(count(log, "retrieveDeviceId 200"), 1);
  EXPECT_EQ(count(log, "getAnyDeferredDeeplinks 200"), 1);
}

TEST_F(LocalService, RefusesToStartWithOneLine) {
  const std::string good = "--directory " + directory.path().string();
  quorva::test::writeFile(directory.path() / "damaged" / "service.sqlite", std::string(4096, 'x'));
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", 2, "--directory is missing"},
      {"--directory", 2, "--directory needs a value"},
      {good + " --port 65536", 2, "--port must be"},
      {good + " --app-scheme shop:", 2, "--app-scheme must be"},
      {good + " --colour red", 2, "--colour is unknown"},
      {good + " --port " + std::to_string(quorva::test::unusedPort()), 1, "already in use"},
      {good + "/service.sqlite/below", 1, "Not a directory"},
      {good + "/damaged", 1, "not a database"}};
  for (const auto& [arguments, status, says] : rows) {
    const Program program(serviceCommand + arguments);
    const std::string line = program.line();
    EXPECT_TRUE(line.starts_with("quorva-localservice: ") && line.find(says) != line.npos) << line;
    EXPECT_EQ(program.line(), "") << says;
    EXPECT_EQ(program.end(), status) << says;
  }
}

}  // namespace
}  // namespace localservice
