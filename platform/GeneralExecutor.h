// Where the library works when it isn't on the application's thread.

#pragma once

#include <functional>

namespace quorva::platform {

/// One thread of the library's own, started by the first job and never ended. Any thread may post.
class GeneralExecutor {
 public:
  GeneralExecutor() = delete;

  /// Queues `job`, which must not throw and must not wait for anything slower than a file. In a
  /// process that may start no more threads it runs on the caller's.
  static void post(std::function<void()> job);
};

}  // namespace quorva::platform
