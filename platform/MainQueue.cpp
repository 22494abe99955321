#include "platform/MainQueue.h"

#include <sys/eventfd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace quorva::platform {
namespace {

using Job = std::function<void()>;

struct State {
  std::atomic<std::thread::id> thread;
  std::atomic<bool> stopped = false;

  std::mutex mutex;
  std::condition_variable posted;
  // Guarded by mutex:
  int fd = -1;  // opened when it's asked for
  std::deque<Job> jobs;
  std::uint64_t taken = 0;  // jobs ever taken from the queue
  bool armed = false;       // fd is readable, where there is one
  std::shared_ptr<const Job> wake;
};

// Never destroyed: other threads may still post while the process exits.
State& state() {
  static State& instance = *new State;
  return instance;
}

// Makes fd readable. Gives what is to be called once the lock is released.
[[nodiscard]] std::shared_ptr<const Job> arm(State& queue) {
  if (std::exchange(queue.armed, true)) return nullptr;
  if (queue.fd >= 0) eventfd_write(queue.fd, 1);
  return queue.wake;
}

void disarm(State& queue) {
  if (!std::exchange(queue.armed, false) || queue.fd < 0) return;
  eventfd_t ignored;
  eventfd_read(queue.fd, &ignored);
}

void call(const std::shared_ptr<const Job>& wake) {
  if (wake && *wake) (*wake)();
}

// Leaves the queue as a drain ends: readable again if more is left, and not otherwise.
struct Settle {
  State& queue;
  explicit Settle(State& drained) : queue(drained) {}
  Settle(const Settle&) = delete;
  Settle& operator=(const Settle&) = delete;
  ~Settle() {
    std::unique_lock lock(queue.mutex);
    if (queue.jobs.empty()) disarm(queue);
    const auto wake = queue.jobs.empty() ? nullptr : arm(queue);
    lock.unlock();
    call(wake);
  }
};

}  // namespace

int MainQueue::fd() {
  State& queue = state();
  const std::scoped_lock lock(queue.mutex);
  if (queue.fd < 0) queue.fd = eventfd(queue.armed, EFD_NONBLOCK | EFD_CLOEXEC);
  return queue.fd;
}

std::size_t MainQueue::drain() {
  if (!isCurrent("MainQueue::drain")) return 0;
  State& queue = state();
  std::unique_lock lock(queue.mutex);
  disarm(queue);
  const std::uint64_t end = queue.taken + queue.jobs.size();
  std::size_t count = 0;
  lock.unlock();
  const Settle settle(queue);
  for (lock.lock(); queue.taken < end; lock.lock()) {
    const Job job = std::move(queue.jobs.front());
    queue.jobs.pop_front();
    ++queue.taken;
    ++count;
    // A loop inside the job must hear of what is left.
    const auto wake = queue.jobs.empty() ? nullptr : arm(queue);
    lock.unlock();
    call(wake);
    job();
  }
  lock.unlock();
  return count;
}

void MainQueue::setWakeCallback(Job callback) {
  State& queue = state();
  const auto wake = std::make_shared<const Job>(std::move(callback));
  auto replaced = wake;  // let go of when the lock is released, since that may run the host's code
  std::unique_lock lock(queue.mutex);
  std::swap(queue.wake, replaced);
  const bool waiting = queue.armed;
  lock.unlock();
  if (waiting) call(wake);
}

void MainQueue::run() {
  if (!isCurrent("MainQueue::run")) return;
  State& queue = state();
  do {
    // Not by the descriptor: the process may have none left.
    std::unique_lock lock(queue.mutex);
    queue.posted.wait(lock, [&] { return queue.stopped || !queue.jobs.empty(); });
    lock.unlock();
    drain();
  } while (!queue.stopped.exchange(false));
}

void MainQueue::stop() {
  state().stopped = true;
  post([] {});
}

void MainQueue::post(Job job) {
  State& queue = state();
  std::unique_lock lock(queue.mutex);
  queue.jobs.push_back(std::move(job));
  const auto wake = arm(queue);
  lock.unlock();
  queue.posted.notify_one();
  call(wake);
}

bool MainQueue::isCurrent(std::string_view operation) {
  const auto current = std::this_thread::get_id();
  std::thread::id owner;
  if (state().thread.compare_exchange_strong(owner, current) || owner == current) return true;
  std::fprintf(stderr, "QuorvaSDK: %.*s was called on another thread than the application's\n",
               static_cast<int>(operation.size()), operation.data());
  return false;
}

}  // namespace quorva::platform
