#include "platform/GeneralExecutor.h"

#include <pthread.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

namespace quorva::platform {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable posted;
  // Guarded by mutex:
  bool running = false;
  std::deque<std::function<void()>> jobs;
};

// Never destroyed: the thread may still work while the process exits.
State& state() {
  static State& instance = *new State;
  return instance;
}

[[noreturn]] void work() {
  State& executor = state();
  for (;;) {
    std::unique_lock lock(executor.mutex);
    executor.posted.wait(lock, [&] { return !executor.jobs.empty(); });
    const auto job = std::move(executor.jobs.front());
    executor.jobs.pop_front();
    lock.unlock();
    job();
  }
}

}  // namespace

void GeneralExecutor::post(std::function<void()> job) {
  State& executor = state();
  std::unique_lock lock(executor.mutex);
  if (!executor.running && !(executor.running = startThread("quorva-general", work))) {
    lock.unlock();
    return job();
  }
  executor.jobs.push_back(std::move(job));
  lock.unlock();
  executor.posted.notify_one();
}

bool startThread(const char* name, void (*body)()) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread thread(body);
    pthread_setname_np(thread.native_handle(), name);
    thread.detach();
  } catch (const std::system_error&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace quorva::platform
