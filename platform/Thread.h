// The library's own threads.

#pragma once

#include <mutex>

namespace quorva::platform {

/// Held by a thread of the library's own while it is at work.
using WorkLock = std::timed_mutex;

/// For exit handlers: takes `lock` for good, once the work under way is done, or after a second in
/// which it isn't.
void stopWork(WorkLock& lock);

/// Starts a thread that is never joined and takes no signals, so that the host's handlers run on
/// the host's threads. False where the system has no thread left to give.
///
/// `atExit` is called as the process exits, before what was set up earlier takes itself down. It is
/// to `stopWork`, or the thread would use libraries that are gone.
[[nodiscard]] bool startThread(const char* name, void (*body)(), void (*atExit)());

}  // namespace quorva::platform
