// The local service: its answers, and the program around them.

#include "localservice/Service.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include "localservice/LinkPage.h"
#include "platform/URLSession.h"
#include "tests/Process.h"
#include "tests/ScriptedServer.h"
#include "tests/Support.h"
#include "tests/Vectors.h"

namespace localservice {
namespace {

using nlohmann::json;
using quorva::platform::HTTPResponse;
using quorva::platform::Result;
using quorva::platform::URL;
using quorva::platform::URLRequest;
using quorva::platform::URLSession;
using quorva::test::matches;
using quorva::test::Process;

const std::string api = "/app/api/v1/";
const std::string home = "127.0.0.1";

class LocalService : public testing::Test {
 protected:
  // A good request's body, with changes; null takes a key away.
  std::string request(const std::string& path, const json& changes) const {
    json body = vectors.at("requests").at(path);
    for (const char* key : {"device_id", "device_uuid"})
      if (body.contains(key)) body[key] = device;
    body.merge_patch(changes);
    return body.dump();
  }
  Answer post(const Service& to, const std::string& path, const json& changes) const {
    return answer(to, {"POST", api + path, request(path, changes), home});
  }
  Answer post(const std::string& path, const json& changes) const {
    return post(service, path, changes);
  }
  Answer createLink(const std::string& path, const std::string& source = "") const {
    return post("create_link", {{"selected_path", path}, {"utm_source", source}});
  }

  const json vectors = quorva::test::vectors("service.json");
  const quorva::test::TemporaryDirectory directory;
  Store store{directory.path() / "service.sqlite"};
  const Service service{store, {"refused"}, "shop"};
  const std::string device = post("retrieveDeviceId", json::object()).body.at("uuid");
};

TEST_F(LocalService, AnswersEachRequestWithItsOutcome) {
  for (const json& row : vectors.at("answers")) {
    const Answer given = post(row[0], row[1]);
    EXPECT_EQ(given.status, int(row[2])) << row << given.body;
    EXPECT_TRUE(matches(given.body.dump(), row[3])) << row << given.body;
  }
  EXPECT_EQ(createLink("large", std::string(1 << 20, 'x')).status, 413);
  EXPECT_EQ(answer(service, {"GET", api + "create_link", "", home}).status, 405);
}

TEST_F(LocalService, LetsOneOfManyHaveAPathAndRemembersIt) {
  std::vector<std::future<Answer>> answers;
  for (int i = 0; i < 8; ++i)
    answers.push_back(std::async(std::launch::async, [&] { return createLink("rush"); }));
  int created = 0;
  for (auto& given : answers) created += given.get().status == 201 ? 1 : 0;
  EXPECT_EQ(created, 1);
  Store reopened(directory.path() / "service.sqlite");
  EXPECT_EQ(post({reopened, {}, ""}, "create_link", {{"selected_path", "rush"}}).status, 400);
}

TEST_F(LocalService, ShowsABrowserWhereALinkLeads) {
  for (const json& link : vectors.at("tappedLinks"))
    ASSERT_EQ(post("create_link", link).status, 201);
  for (const json& row : vectors.at("pages")) {
    const Page page = visit(service, {"GET", row[0], row[1], home});
    EXPECT_EQ(page.status, int(row[2])) << row;
    EXPECT_EQ(page.location, std::string(row[3])) << row;
    EXPECT_TRUE(matches(page.html, row[4])) << row << page.html;
    EXPECT_EQ(page.html.find("<T"), page.html.npos);
  }
}

TEST_F(LocalService, HandsATapOnceToTheNextInstallationNearby) {
  for (const char* path : {"spring", "autumn"}) ASSERT_EQ(createLink(path, "s").status, 201);
  const auto tap = [&](const char* path, const std::string& from, const char* method = "GET") {
    EXPECT_EQ(visit(service, {method, std::string("/go.shop.example") + path, "", from}).status,
              200);
  };
  const auto ask = [&](const Service& whom) {
    return post(whom, "getAnyDeferredDeeplinks", json::object()).body.dump();
  };
  const std::string none = R"({"match_found":false})";
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
  EXPECT_NE(ask(restarted).find("https://go.shop.example/autumn"), none.npos) << "the newest";
  EXPECT_EQ(ask(restarted), vectors.at("claimed").dump());
  EXPECT_EQ(ask(service), none) << "each only once";
}

const std::string serviceCommand = "'" QUORVA_LOCALSERVICE_PROGRAM "' ";

// The local service in a process of its own, on the directory's state.
struct ServiceProgram {
  explicit ServiceProgram(const std::string& directory, const std::string& options = "")
      : process(serviceCommand + "--print-ready --state " + directory + options + " 2>&1"),
        caFile(ready.at("ca")) {}
  std::uint16_t port(const char* of) const {
    const std::string address = ready.at(of);
    return static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1)));
  }
  // Gives what it logged.
  std::string stop() {
    process.signal(SIGTERM);
    std::string lines = log.get();
    EXPECT_EQ(process.end(), 0);
    return lines;
  }

  Process process;
  const json ready = json::parse(process.line());
  const std::string caFile;
  const std::uint16_t https = port("service");
  const std::uint16_t http = port("page");
  std::future<std::string> log = std::async([this] { return process.rest(); });
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
    URLRequest call(URL::parse("https://service.example" + api + "retrieveDeviceId").value());
    call.body = request("retrieveDeviceId", {{"api_key", "my secret"}});
    start(URLSession::post(std::move(call)),
          [&](Result<HTTPResponse> reply) { ++statuses[reply ? reply->statusCode : 0]; });
    browsers.push_back(openLink(program.http, "/go.shop.example/none"));
  }
  for (const int browser : browsers)
    EXPECT_TRUE(shownPage(browser).starts_with("HTTP/1.1 404 Not Found"));
  EXPECT_TRUE(quorva::test::drainUntil([&] { return statuses[200] == 1000; }));

  const std::string log = program.stop();
  EXPECT_EQ(matches(log, "[-0-9]{10}T[.:0-9]{12}Z (POST " + api +
                             "retrieveDeviceId 200|GET /go.shop.example/none 404)\n"),
            2000);
  EXPECT_EQ(log.find("my secret"), log.npos);
}

// What an application's own tests, or a page of another origin, may ask of the service.
TEST_F(LocalService, CanBeWatchedAndDisturbedFromThisMachineAlone) {
  ASSERT_EQ(createLink("tapped link").status, 201);
  ServiceProgram program(directory.path());
  URLSession::route("localhost", {program.https, program.caFile});
  const auto call = [&](const std::string& path) {
    URLRequest posted(URL::parse("https://localhost" + api + path).value());
    posted.body = request(path, {{"more", {{"api_key", "another secret"}}}});
    const auto reply = quorva::test::outcome(URLSession::post(std::move(posted)));
    return reply ? std::to_string(reply->statusCode) + " " + reply->body
                 : reply.error().localizedDescription();
  };
  EXPECT_EQ(call("device_ping"), R"(200 {"status":"ok"})");
  httplib::Client browser("127.0.0.1", program.http);
  const auto send = [&](const json& row) {
    httplib::Request sent;
    sent.method = row[0];
    sent.path = row[1];
    sent.set_header("Content-Type", "application/json");
    for (const auto& [name, value] : row[2].items()) {
      sent.headers.erase(name);
      sent.set_header(name.c_str(), value.get<std::string>());
    }
    sent.body = row[3] == "" ? "" : row[3].dump();
    return browser.send(sent);
  };
  for (const json& row : vectors.at("interface")) {
    const auto given = send(row);
    ASSERT_TRUE(given) << row;
    EXPECT_EQ(given->status, int(row[4])) << row << given->body;
    EXPECT_TRUE(matches(given->body, row[5])) << row << given->body;
  }

  // What follows a request that was refused before it was read isn't one.
  const int stranger = connected(program.http);
  const std::string posting = "POST /api/faults HTTP/1.1\r\nHost: localhost\r\nContent-Type: ";
  for (const std::string& part : {posting + "text/plain\r\nContent-Length: 200\r\n\r\n",
                                  posting + "application/json\r\nContent-Length: 31\r\n\r\n" +
                                      R"({"endpoint":"*","kind":"reset"})"}) {
    ::send(stranger, part.data(), part.size(), MSG_NOSIGNAL);
    std::array<char, 4096> answer{};
    recv(stranger, answer.data(), answer.size(), 0);
  }
  close(stranger);
  EXPECT_EQ(browser.Get("/api/faults")->body, "[]");

  for (const json& row : vectors.at("faults")) {
    json fault = row[0];
    fault.update({{"endpoint", "retrieveDeviceId"}, {"once", true}});
    EXPECT_EQ(send({"POST", "/api/faults", json::object(), fault})->status, 201) << row;
    EXPECT_EQ(call("device_ping"), R"(200 {"status":"ok"})");
    const std::string disturbed = call("retrieveDeviceId");
    EXPECT_TRUE(matches(disturbed, row[1])) << row << disturbed;
    const std::string asUsual = call("retrieveDeviceId");
    EXPECT_TRUE(matches(asUsual, "^200 .*uuid\":\"")) << row << asUsual;
  }

  const std::pair<std::string, int> oversized[] = {
      {std::string(30'000, '['), 400},
      {request("resolve", {{"short_url", std::string(100'000, 'x')}}), 404},
      {std::string(2'000'000, ' '), 413}};
  for (const auto& [body, status] : oversized) {
    URLRequest posted(URL::parse("https://localhost" + api + "resolve").value());
    posted.headers = {"Content-Type: application/json"};
    posted.body = body;
    EXPECT_EQ(quorva::test::outcome(URLSession::post(std::move(posted))).value().statusCode,
              status);
  }
  const std::string requests = browser.Get("/api/requests")->body;
  EXPECT_LT(requests.size(), 100'000u);
  EXPECT_EQ(requests.find("another secret"), requests.npos);
  const auto kept = json::parse(requests).size();
  EXPECT_EQ(kept, 4 + 3 * vectors.at("faults").size());
  // A watcher hears of what was and of what comes, from where it was interrupted, until the end.
  std::string heard;
  std::promise<void> isThere;
  std::future<void> watching = std::async([&] {
    browser.Get("/api/events", {{"Last-Event-ID", std::to_string(kept - 1)}},
                [&](const char* text, std::size_t size) {
                  if (heard.empty()) isThere.set_value();
                  heard.append(text, size);
                  return true;
                });
  });
  isThere.get_future().wait();
  call("device_ping");
  program.stop();
  watching.wait();
  EXPECT_EQ(matches(heard, "event: request\nid: [0-9]+\ndata: \\{"), 2) << heard;
}

TEST_F(LocalService, EndsAlsoWhileAClientGoesOnAndOn) {
  ServiceProgram program(directory.path());
  const int idle = connected(program.https);
  std::promise<void> isHeard;
  std::future<void> talking = std::async([&, client = connected(program.http)] {
    std::string part =
        "POST /api/taps HTTP/1.1\r\nHost: localhost\r\n"
        "Content-Type: application/json\r\nContent-Length: 1000000000000\r\n\r\n";
    std::size_t parts = 0;
    for (; send(client, part.data(), part.size(), MSG_NOSIGNAL) > 0; part.resize(1 << 16))
      if (++parts == 1000) isHeard.set_value();  // more than any buffer holds
    EXPECT_GE(parts, 1000u);
    close(client);
  });
  isHeard.get_future().wait();
  program.stop();
  talking.wait();
  close(idle);
}

TEST_F(LocalService, BringsAnEarlierFileUpToDate) {
  sqlite3* file = nullptr;
  const std::string name = directory.path() / "service.sqlite";
  sqlite3_open(name.c_str(), &file);
  ASSERT_EQ(sqlite3_exec(file,
                         "ALTER TABLE device DROP COLUMN first_seen;"
                         "ALTER TABLE device DROP COLUMN pings;"
                         "DROP TABLE request; DROP INDEX tapsOfLink; PRAGMA user_version = 0",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  Store upgraded(name);
  ASSERT_EQ(upgraded.devices().size(), 1u);
  EXPECT_EQ(upgraded.devices()[0].firstSeen, upgraded.devices()[0].lastSeen);
  EXPECT_EQ(Store(name).devices()[0].id, device);
  for (int i = 1; i <= 1002; ++i) upgraded.addRequest("{}");
  EXPECT_EQ(upgraded.requestsAfter("0", 2000).size(), 1000u);
  EXPECT_EQ(upgraded.requestsAfter("1001", 20).at(0).number, "1002");
  EXPECT_EQ(upgraded.requestsAfter("5000", 20).at(0).number, "3") << "another file's";
  sqlite3_exec(file, "PRAGMA user_version = 99", nullptr, nullptr, nullptr);
  sqlite3_close(file);
  EXPECT_THROW(Store{name}, std::runtime_error);
}

// What a person does with two applications: makes a link with the one, taps it, installs the other.
TEST_F(LocalService, CarriesALinkAcrossAnInstallation) {
  const auto application = [&](const ServiceProgram& program, const std::string& rest) {
    Process quickstart("env XDG_DATA_HOME=" + (directory.path() / "data").string() + " '" +
                       QUORVA_QUICKSTART_PROGRAM "' --port " + std::to_string(program.https) +
                       " --ca " + program.caFile + rest + " 2>&1");
    const std::string printed = quickstart.rest();
    EXPECT_EQ(quickstart.end(), 0) << printed;
    return printed;
  };
  const std::string link = "https://go.shop.example/spring";
  const std::string before = "tapped before install:   " + link + "?via=poster\n";
  const std::string opened = "opened with:             " + link + "\n";
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
  EXPECT_EQ(matches(log, "retrieveDeviceId 200"), 1);
  EXPECT_EQ(matches(log, "getAnyDeferredDeeplinks 200"), 1);
}

TEST_F(LocalService, RefusesToStartWithOneLine) {
  const std::string good = "--state " + directory.path().string();
  quorva::test::writeFile(directory.path() / "damaged" / "service.sqlite", std::string(4096, 'x'));
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", 2, "--state is missing"},
      {"--state", 2, "--state needs a value"},
      {good + " --port 65536", 2, "--port must be"},
      {good + " --app-scheme shop:", 2, "--app-scheme must be"},
      {good + " --colour red", 2, "--colour is unknown"},
      {good + " --port " + std::to_string(quorva::test::unusedPort()), 1, "already in use"},
      {good + "/service.sqlite/below", 1, "Not a directory"},
      {good + "/damaged", 1, "not a database"}};
  for (const auto& [arguments, status, says] : rows) {
    Process program(serviceCommand + arguments + " 2>&1");
    const std::string line = program.line();
    EXPECT_TRUE(line.starts_with("quorva-localservice: ") && line.find(says) != line.npos) << line;
    EXPECT_EQ(program.line(), "") << says;
    EXPECT_EQ(program.end(), status) << says;
  }
}

}  // namespace
}  // namespace localservice
