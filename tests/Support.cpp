#include "tests/Support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "platform/MainQueue.h"

namespace quorva::test {
namespace {

using Clock = std::chrono::steady_clock;
using platform::MainQueue;

// Every test process is a fresh installation.
struct Installation {
  TemporaryDirectory directory;
  Installation() { setenv("XDG_DATA_HOME", directory.path().c_str(), 1); }
};
const Installation installation;

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string name = std::filesystem::temp_directory_path() / "quorva-test-XXXXXX";
  if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
  path_ = name;
  if (geteuid() == 0 && chown(name.c_str(), nobody, nobody) != 0) {
    throw std::runtime_error("no directory for nobody");
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

bool drainUntil(const std::function<bool()>& happened, int descriptor) {
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (!happened()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    std::array waiting{pollfd{MainQueue::fd(), POLLIN, 0}, pollfd{descriptor, POLLIN, 0}};
    poll(waiting.data(), waiting.size(), static_cast<int>(left.count()));
    MainQueue::drain();
  }
  return true;
}

Console::Console() {
  std::array<int, 2> pipe{};
  std::fflush(stdout);
  saved_ = dup(STDOUT_FILENO);
  if (pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0 || dup2(pipe[1], STDOUT_FILENO) < 0) {
    throw std::runtime_error("no pipe");
  }
  close(pipe[1]);
  reading_ = pipe[0];
  setlinebuf(stdout);
}

Console::~Console() {
  static_cast<void>(text());
  dup2(saved_, STDOUT_FILENO);
  if (testing::Test::HasFailure()) std::fputs(text_.c_str(), stdout);
  close(saved_);
  close(reading_);
}

const std::string& Console::text() {
  std::fflush(stdout);
  std::array<char, 4096> bytes;
  for (ssize_t count; (count = read(reading_, bytes.data(), bytes.size())) > 0;) {
    text_.append(bytes.data(), static_cast<std::size_t>(count));
  }
  return text_;
}

std::vector<std::string> Console::waitForLines(std::size_t count) {
  const auto haveCome = [&] {
    return static_cast<std::size_t>(std::ranges::count(text(), '\n')) >= count;
  };
  if (!drainUntil(haveCome, reading_)) throw std::runtime_error("too few lines: " + text_);
  std::istringstream stream(text_);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    line = std::regex_replace(line, std::regex(R"(^\[[^\]]*\] )"), "");
    lines.push_back(std::regex_replace(line, std::regex(R"(:\d+\] )"), "] "));
  }
  return lines;
}

int rounds(int usually, int beforeRelease) {
  return std::getenv("QUORVA_ENDURANCE") ? beforeRelease : usually;
}

double secondsSince(Clock::time_point begun) {
  return std::chrono::duration<double>(Clock::now() - begun).count();
}

std::ptrdiff_t matches(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {});
}

void writeFile(const std::filesystem::path& file, const std::string& text) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

}  // namespace quorva::test
