// What several tests need: a fresh installation, and a main queue that is emptied until something
// has happened.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Task.h"

namespace quorva::test {

/// The user whom permissions stop, where the tests run as root.
constexpr uid_t nobody = 65534;

/// A directory of its own, which is nobody's where it would be root's. Gone with the value.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Empties the main queue until `happened` holds; false if it doesn't within a minute. Looks
/// again whenever there was something in the queue or there is something to read from `descriptor`.
[[nodiscard]] bool drainUntil(const std::function<bool()>& happened, int descriptor = -1);

/// Runs `task` to its end.
template <class T, class Executor>
[[nodiscard]] platform::Result<T> outcome(platform::Task<T, Executor> task) {
  std::optional<platform::Result<T>> outcome;
  start(std::move(task), [&](platform::Result<T> result) { outcome = std::move(result); });
  if (outcome) throw std::logic_error("the callback came inside start");
  if (!drainUntil([&] { return outcome.has_value(); })) throw std::runtime_error("no outcome");
  return *outcome;
}

/// Takes what is written to standard output as long as it lives, for log lines.
class Console {
 public:
  Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  /// Empties the main queue until `count` lines have come, and gives them without their times and
  /// line numbers:
  /// "[level] [file] function: message".
  [[nodiscard]] std::vector<std::string> waitForLines(std::size_t count);

  /// All that has come so far, as it came.
  [[nodiscard]] const std::string& text();

 private:
  int saved_ = -1;
  int reading_ = -1;
  std::string text_;
};

/// How often a test of endurance repeats itself: `usually`, or `beforeRelease` where
/// QUORVA_ENDURANCE is set, as `./run endurance` does.
[[nodiscard]] int rounds(int usually, int beforeRelease);

[[nodiscard]] double secondsSince(std::chrono::steady_clock::time_point begun);

/// How often the regular expression matches.
[[nodiscard]] std::ptrdiff_t matches(const std::string& text, const std::string& pattern);

void writeFile(const std::filesystem::path& file, const std::string& text);

}  // namespace quorva::test
