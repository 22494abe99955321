// Coroutines and the two threads that they run on.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <latch>
#include <thread>

#include "platform/GeneralExecutor.h"
#include "platform/Task.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

using test::drainUntil;

template <class T>
using Background = Task<T, GeneralExecutor>;

bool isReadable() {
  pollfd queue{MainQueue::fd(), POLLIN, 0};
  return poll(&queue, 1, 0) == 1;
}

// Runs a task to its end.
template <class T, class Executor>
Result<T> outcome(Task<T, Executor> task) {
  std::optional<Result<T>> outcome;
  start(std::move(task), [&](Result<T> result) { outcome = std::move(result); });
  EXPECT_FALSE(outcome) << "the callback came inside start";
  if (!drainUntil([&] { return outcome.has_value(); }))
    throw std::runtime_error("the task didn't end");
  return *outcome;
}

Background<std::thread::id> backgroundThread() {
  co_return std::this_thread::get_id();
}
Task<std::thread::id> mainThread() {
  co_return std::this_thread::get_id();
}

Background<bool> backgroundStays() {
  const auto before = std::this_thread::get_id();
  const auto main = co_await mainThread();
  const auto after = std::this_thread::get_id();
  const auto other = co_await backgroundThread();
  co_return before == after&& before == other&& main != before;
}

Task<bool> mainStays() {
  const auto before = std::this_thread::get_id();
  const auto background = co_await backgroundThread();
  const auto after = std::this_thread::get_id();
  co_return before == after&& background != before;
}

TEST(Task, StaysOnItsExecutor) {
  EXPECT_TRUE(outcome(mainStays()).value());
  EXPECT_TRUE(outcome(backgroundStays()).value());
  EXPECT_EQ(outcome(mainThread()).value(), std::this_thread::get_id());
}

Background<int> failing() {
  throw std::runtime_error("of the host");
  co_return 1;
}
Task<int> rethrowing() {
  co_return co_await failing();
}
Task<std::string> catching() {
  const Result<int> result = co_await rethrowing().result();
  if (result) co_return "a value";
  try {
    co_await rethrowing();
  } catch (const std::runtime_error& error) {
    co_return error.what() + (" = " + result.error().localizedDescription());
  }
  co_return "nothing thrown";
}

TEST(Task, HandsExceptionsOnUnchangedOrAsValues) {
  EXPECT_EQ(outcome(catching()).value(), "of the host = of the host");
  EXPECT_EQ(outcome(rethrowing()).error().localizedDescription(), "of the host");
}

Task<int> immediate(int value) {
  co_return value;
}
Task<int> manyAwaits(int count) {
  int sum = 0;
  for (int i = 0; i < count; ++i) sum += co_await immediate(1);
  co_return sum;
}

TEST(Task, NeedsNoStackForCallsThatEndAtOnce) {
  EXPECT_EQ(outcome(manyAwaits(200'000)).value(), 200'000);
}

Task<void> keeping(std::shared_ptr<int>) {
  co_return;
}

TEST(Task, FreesWhatItHoldsWhetherItRanOrNot) {
  const auto held = std::make_shared<int>();
  {
    const auto dropped = keeping(held);
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_TRUE(outcome(keeping(held)));
  EXPECT_EQ(held.use_count(), 1);
}

// A coroutine of a host's own kind, which its owner may destroy at any moment.
struct Foreign {
  struct promise_type {
    Foreign get_return_object() {
      return {std::coroutine_handle<promise_type>::from_promise(*this)};
    }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_always final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
  std::coroutine_handle<promise_type> handle;
};

Background<void> waitFor(std::latch& latch) {
  latch.wait();
  co_return;
}
Task<void> waitThen(std::latch& latch, bool& ended) {
  co_await waitFor(latch);
  ended = true;
}
Foreign awaiting(std::latch& latch, bool& ended, bool& resumed) {
  co_await waitThen(latch, ended);
  resumed = true;
}

TEST(Task, ForeignCoroutinesMayAwaitItAndMayGiveUp) {
  for (const bool givesUp : {false, true}) {
    std::latch latch(1);
    bool ended = false;
    bool resumed = false;
    const Foreign host = awaiting(latch, ended, resumed);
    MainQueue::drain();  // begins, and waits in the background
    if (givesUp) host.handle.destroy();
    latch.count_down();
    EXPECT_TRUE(drainUntil([&] { return ended; })) << "it goes on to its end";
    EXPECT_EQ(resumed, !givesUp);
    if (!givesUp) host.handle.destroy();
  }
}

TEST(MainQueue, RunsWhatWasQueuedWhenItBegan) {
  int runs = 0;
  MainQueue::post([&] {
    ++runs;
    MainQueue::post([&] { ++runs; });
  });
  MainQueue::post([&] { ++runs; });
  EXPECT_EQ(MainQueue::drain(), 2U);
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(isReadable()) << "more is left";
  EXPECT_EQ(MainQueue::drain(), 1U);
  EXPECT_FALSE(isReadable());
}

TEST(MainQueue, ALoopInsideAJobHearsOfTheRest) {
  std::vector<int> order;
  MainQueue::post([&] {
    EXPECT_TRUE(isReadable());
    EXPECT_EQ(MainQueue::drain(), 2U);
    order.push_back(1);
  });
  MainQueue::post([&] { order.push_back(2); });
  MainQueue::post([&] { order.push_back(3); });
  EXPECT_EQ(MainQueue::drain(), 1U);
  EXPECT_EQ(order, (std::vector{2, 3, 1}));
  EXPECT_FALSE(isReadable());
}

TEST(MainQueue, EdgeTriggeredLoopsMissNothing) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {}};
  ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, MainQueue::fd(), &event), 0);
  int left = 1000;
  std::function<void()> next = [&] {
    if (--left > 0) MainQueue::post(next);
  };
  MainQueue::post(next);
  while (left > 0 && epoll_wait(epoll, &event, 1, 5000) == 1) MainQueue::drain();
  EXPECT_EQ(left, 0);
  close(epoll);
}

TEST(MainQueue, WakesALoopThatCannotPoll) {
  int wakes = 0;
  MainQueue::post([] {});
  MainQueue::setWakeCallback([&] { ++wakes; });
  EXPECT_EQ(wakes, 1) << "something was waiting";
  MainQueue::post([] { MainQueue::post([] {}); });
  EXPECT_EQ(wakes, 1) << "it knows";
  for (int heard = 0; std::exchange(heard, wakes) < wakes;) MainQueue::drain();
  EXPECT_EQ(MainQueue::drain(), 0U) << "a loop that drains once a wake runs everything";
  MainQueue::setWakeCallback(nullptr);
}

TEST(MainQueue, LetsAHostsExceptionOutAndKeepsTheRest) {
  bool ran = false;
  MainQueue::post([] { throw std::runtime_error("host"); });
  MainQueue::post([&] { ran = true; });
  EXPECT_THROW(MainQueue::drain(), std::runtime_error);
  EXPECT_TRUE(isReadable());
  EXPECT_EQ(MainQueue::drain(), 1U);
  EXPECT_TRUE(ran);

  start(immediate(1), [](const Result<int>&) { throw std::runtime_error("callback"); });
  EXPECT_THROW((void)drainUntil([] { return false; }), std::runtime_error);
}

TEST(MainQueue, RunEndsWithStopFromAnyThread) {
  MainQueue::stop();
  MainQueue::run();  // ends at once: the stop was meant for it
  std::jthread other([] { MainQueue::post([] { MainQueue::stop(); }); });
  MainQueue::run();
  std::jthread third([] { MainQueue::stop(); });
  MainQueue::run();
}

TEST(MainQueue, TellsAnotherThreadThatItIsNotTheApplications) {
  EXPECT_EQ(MainQueue::drain(), 0U);
  MainQueue::post([] {});
  testing::internal::CaptureStderr();
  std::thread([] { EXPECT_EQ(MainQueue::drain(), 0U); }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "QuorvaSDK: MainQueue::drain was called on another thread than the application's\n");
  EXPECT_EQ(MainQueue::drain(), 1U);
}

TEST(MainQueue, TakesJobsFromManyThreadsAtOnce) {
  int runs = 0;
  const auto postMany = [&] {
    for (int job = 0; job < 2000; ++job) MainQueue::post([&] { ++runs; });
  };
  const std::jthread threads[] = {std::jthread(postMany), std::jthread(postMany),
                                  std::jthread(postMany)};
  EXPECT_TRUE(drainUntil([&] { return runs == 6000; }));
}

}  // namespace
}  // namespace quorva::platform
