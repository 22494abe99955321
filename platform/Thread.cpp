#include "platform/Thread.h"

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <system_error>
#include <thread>

namespace quorva::platform {

bool startThread(const char* name, void (*body)(), void (*stopWork)()) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread thread(body);
    pthread_setname_np(thread.native_handle(), name);
    thread.detach();
    std::atexit(stopWork);
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace quorva::platform
