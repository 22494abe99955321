// The library in a process of its own: what a second start finds, and what an end at any moment
// does.

#include <spawn.h>
#include <sys/wait.h>

#include "tests/ServiceFixture.h"

namespace quorva {
namespace {

using test::Reply;

class Host : public test::ServiceFixture {
 protected:
  Host() {
    setenv("XDG_DATA_HOME", installation_.path().c_str(), 1);
    answer("retrieveDeviceId", Reply::json(200, R"({"uuid":"u-1"})"));
    answer("create_link", Reply::json(201, R"({"short_url":"https://go/x"})"));
  }

  // How a host that is run with `way` ends.
  int run(std::string way = "") const {
    std::string port = std::to_string(server.port());
    std::string ca = caFile;
    std::string program = QUORVA_HOST_PROGRAM;
    char* arguments[] = {program.data(), port.data(), ca.data(), way.data(), nullptr};
    pid_t child = -1;
    EXPECT_EQ(posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ), 0);
    int status = -1;
    waitpid(child, &status, 0);
    return status;
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
  answer("create_link", Reply::json(500, "{}"));
  EXPECT_EQ(WEXITSTATUS(run()), 2);
}

TEST_F(Host, ASecondStartFindsWhatTheFirstStored) {
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
  EXPECT_EQ(lastIdentifier("create_link", "device_id"), "u-1");
  EXPECT_EQ(lastIdentifier("create_link", "api_key"), "qk");
}

TEST_F(Host, AKillRightBehindTheWriteLosesNothing) {
  EXPECT_EQ(WTERMSIG(run("kill")), SIGKILL);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(sent("retrieveDeviceId").size(), 1U);
}

TEST_F(Host, MayEndAtAnyMoment) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(run("leave"), 0);
    EXPECT_EQ(run("exit"), 0);
  }
}

}  // namespace
}  // namespace quorva
