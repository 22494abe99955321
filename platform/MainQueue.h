// The application's thread, and the queue through which everything reaches it.
//
// The application's thread is the one that first initializes the library or empties the queue. The
// library posts to the queue from its own threads; the host empties it in whatever loop it has:
//   - poll `fd()` for reading and call `drain()`; or
//   - have `setWakeCallback()` tell the loop to call `drain()`, where it can't poll; or
//   - call `run()` in a program that has no loop.
// Everything here may be called at any time; what must be on the application's thread says so. An
// exception that a host's callback throws leaves through `drain()`; what is queued behind it stays
// queued.

#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "Export.h"

namespace quorva::platform {

/// The queue through which everything reaches the application's thread. The host empties it, in
/// whatever loop it has.
class QUORVA_EXPORT MainQueue {
 public:
  MainQueue() = delete;

  /// A descriptor that is readable while something waits to be run, for poll, select or epoll
  /// (level- or edge-triggered). The library's: don't read or close it. -1 while the process has no
  /// descriptor left: ask again then.
  [[nodiscard]] static int fd();

  /// Runs what was waiting when it was called, and says how much that was. On the application's
  /// thread; may be called again from inside a callback, as a modal dialog's loop does.
  static std::size_t drain();

  /// Has `callback` called, on any thread, whenever `fd()` becomes readable; at once if it is. It
  /// may be called more often than needed, should do no more than wake the loop, and must not
  /// throw. An empty function takes it away, but one more call may still be under way on another
  /// thread.
  static void setWakeCallback(std::function<void()> callback);

  /// Empties the queue until `stop()`, waiting in between. On the application's thread.
  static void run();

  /// Ends `run()`, the one under way or else the next. Any thread.
  static void stop();

  /// Queues `job` for the application's thread. Any thread.
  static void post(std::function<void()> job);

  /// Whether the caller is on the application's thread, which it becomes if there is none yet. If
  /// not, says on standard error that `operation` belongs there. For the library's own operations.
  [[nodiscard]] static bool isCurrent(std::string_view operation);
};

}  // namespace quorva::platform
