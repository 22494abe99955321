// The library's hops from thread to thread, made as bad as they may be: as many general threads as
// QUORVA_CHAOS_THREADS says, and a random delay before everything that is posted is run. The linker
// puts these in place of the library's own functions, which `__real` names.

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "platform/Thread.h"

namespace {

using Job = std::function<void()>;

void delay() {
  thread_local std::minstd_rand random(std::random_device{}());
  if (random() % 2 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 1000));
}

// What GeneralExecutor is, with several threads.
struct Executor {
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  bool stopped = false;
  std::size_t working = 0;
  std::deque<Job> jobs;

  static Executor& shared() {
    static Executor& instance = *new Executor;
    return instance;
  }

  [[noreturn]] static void work() {
    Executor& executor = shared();
    std::unique_lock lock(executor.mutex);
    for (;;) {
      executor.changed.wait(lock, [&] { return !executor.jobs.empty() && !executor.stopped; });
      const Job job = std::move(executor.jobs.front());
      executor.jobs.pop_front();
      ++executor.working;
      lock.unlock();
      delay();
      job();
      lock.lock();
      --executor.working;
      executor.changed.notify_all();
    }
  }

  static void stop() {
    Executor& executor = shared();
    std::unique_lock lock(executor.mutex);
    executor.stopped = true;
    executor.changed.wait_for(lock, std::chrono::seconds(1), [&] { return executor.working == 0; });
  }
};

}  // namespace

extern "C" {

// quorva::platform::GeneralExecutor::post
void __wrap__ZN6quorva8platform15GeneralExecutor4postESt8functionIFvvEE(Job job) {
  static const bool started = [] {
    const char* const count = std::getenv("QUORVA_CHAOS_THREADS");
    bool all = true;
    for (int i = count ? std::stoi(count) : 1; i > 0; --i)
      all = quorva::platform::startThread("chaos", Executor::work, Executor::stop) && all;
    return all;
  }();
  if (!started) std::abort();
  Executor& executor = Executor::shared();
  const std::scoped_lock lock(executor.mutex);
  executor.jobs.push_back(std::move(job));
  executor.changed.notify_one();
}

// quorva::platform::MainQueue::post
void __real__ZN6quorva8platform9MainQueue4postESt8functionIFvvEE(Job job);
void __wrap__ZN6quorva8platform9MainQueue4postESt8functionIFvvEE(Job job) {
  delay();
  __real__ZN6quorva8platform9MainQueue4postESt8functionIFvvEE(std::move(job));
}
}
