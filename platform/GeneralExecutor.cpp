#include "platform/GeneralExecutor.h"

#include <condition_variable>
#include <deque>
#include <mutex>

#include "platform/Thread.h"

namespace quorva::platform {
namespace {

struct State {
  std::mutex mutex;
  std::condition_variable posted;
  // Guarded by mutex:
  bool running = false;
  std::deque<std::function<void()>> jobs;

  WorkLock atWork;  // held while a job runs; taken for good at exit
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
    const std::scoped_lock working(executor.atWork);
    job();
  }
}

}  // namespace

void GeneralExecutor::post(std::function<void()> job) {
  State& executor = state();
  std::unique_lock lock(executor.mutex);
  if (!executor.running) {
    executor.running = startThread("quorva-general", work, [] { stopWork(state().atWork); });
  }
  if (!executor.running) {
    lock.unlock();
    return job();
  }
  executor.jobs.push_back(std::move(job));
  lock.unlock();
  executor.posted.notify_one();
}

}  // namespace quorva::platform
