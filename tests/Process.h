// Processes that a test starts.
//
// Threads: one at a time; while it reads, another may signal. Errors: std::runtime_error where no
// process can be had. Lifetime: a process that still runs when its value goes is killed.

#pragma once

#include <sys/types.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>

namespace quorva::test {

class Process {
 public:
  /// Runs a shell's command, with pipes for its standard input and output.
  explicit Process(const std::string& command);

  /// Has `part` done by a copy of this process, whose status is 0 if that went well. Where this
  /// one is root's, the copy is nobody's, whom permissions stop. It ends without a destructor.
  explicit Process(const std::function<bool()>& part);

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  /// Gives a program a byte to read; it may have ended.
  void tell() const;

  /// The next line that a program prints, and all that it prints until it ends; "" at the end.
  [[nodiscard]] std::string line() const;
  [[nodiscard]] std::string rest() const;

  void signal(int number) const;

  /// Waits until it has stopped itself by SIGSTOP.
  void waitUntilStopped() const;

  /// Waits for its end: its status, or the signal that ended it as a negative number.
  int end();

 private:
  pid_t id_ = -1;  // -1 once it has ended
  std::array<int, 2> input_{-1, -1};
  FILE* output_ = nullptr;
};

}  // namespace quorva::test
