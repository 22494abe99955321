#include "platform/Thread.h"

#include <pthread.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <thread>

namespace quorva::platform {

void stopWork(WorkLock& lock) {
  // The host's own callbacks may be part of the work, and wait for what this thread holds.
  static_cast<void>(
      lock.try_lock_until(std::chrono::system_clock::now() + std::chrono::seconds(1)));
}

bool startThread(const char* name, void (*body)(), void (*atExit)()) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  // A fault is the thread's own, and for the host's crash reporter.
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) sigdelset(&all, fault);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread thread(body);
    pthread_setname_np(thread.native_handle(), name);
    thread.detach();
    std::atexit(atExit);
  } catch (const std::exception&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace quorva::platform
