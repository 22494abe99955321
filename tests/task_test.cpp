// Coroutines and the two threads that they run on.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <latch>
#include <thread>

#include "platform/GeneralExecutor.h"
#include "tests/Support.h"

namespace quorva::platform {
namespace {

using test::drainUntil;
using test::outcome;

bool isReadable() {
  pollfd queue{MainQueue::fd(), POLLIN, 0};
  return poll(&queue, 1, 0) == 1;
}

template <class Executor>
Task<std::thread::id, Executor> threadOf() {
  co_return std::this_thread::get_id();
}

// The threads that it and those it awaits in between are on, in turn.
using Journey = std::vector<std::thread::id>;
template <class Executor>
Task<Journey, Executor> journey() {
  Journey threads{std::this_thread::get_id()};
  threads.push_back(co_await threadOf<MainQueue>());
  threads.push_back(std::this_thread::get_id());
  threads.push_back(co_await threadOf<GeneralExecutor>());
  threads.push_back(std::this_thread::get_id());
  co_return threads;
}

TEST(Task, StaysOnItsExecutor) {
  const auto main = std::this_thread::get_id();
  const auto other = outcome(threadOf<GeneralExecutor>()).value();
  EXPECT_NE(main, other);
  EXPECT_EQ(*outcome(journey<MainQueue>()), (Journey{main, main, main, other, main}));
  EXPECT_EQ(*outcome(journey<GeneralExecutor>()), (Journey{other, main, other, other, other}));
}

template <class Executor>
Task<int, Executor> failing() {
  throw std::runtime_error("of the host");
  co_return 1;
}
Task<std::string> catching() {
  const Result<int> result = co_await failing<GeneralExecutor>().result();
  try {
    co_await failing<MainQueue>();
  } catch (const std::runtime_error& error) {
    co_return error.what() + (" = " + result.error().localizedDescription());
  }
  co_return "nothing thrown";
}

TEST(Task, HandsExceptionsOnUnchangedOrAsValues) {
  EXPECT_EQ(outcome(catching()).value(), "of the host = of the host");
  EXPECT_EQ(outcome(failing<GeneralExecutor>()).error().localizedDescription(), "of the host");
}

TEST(Task, NeedsNoStackForCallsThatEndAtOnce) {
  const auto manyAwaits = []() -> Task<void> {
    for (int i = 0; i < 200'000; ++i) co_await threadOf<MainQueue>();
  };
  EXPECT_TRUE(outcome(manyAwaits()));
}

TEST(Task, FreesWhatItHoldsWhetherItRanOrNot) {
  const auto keeping = [](std::shared_ptr<int>) -> Task<void> { co_return; };
  const auto held = std::make_shared<int>();
  static_cast<void>(keeping(held));
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
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { throw; }
  };
  std::coroutine_handle<promise_type> handle;
};

Task<void, GeneralExecutor> waitFor(std::latch& latch) {
  co_return latch.wait();
}
Task<void> waitThenStep(std::latch& latch, int& steps) {
  co_await waitFor(latch);
  ++steps;
}
Foreign awaiting(std::latch& latch, int& steps) {
  co_await waitThenStep(latch, steps);
  ++steps;
}

TEST(Task, ForeignCoroutinesMayAwaitItAndMayGiveUp) {
  for (const bool givesUp : {false, true}) {
    std::latch latch(1);
    int steps = 0;
    const Foreign host = awaiting(latch, steps);
    MainQueue::drain();  // begins, and waits in the background
    if (givesUp) host.handle.destroy();
    latch.count_down();
    EXPECT_TRUE(drainUntil([&] { return steps > 0; })) << "it goes on to its end";
    EXPECT_EQ(steps, givesUp ? 1 : 2);
  }
}

Foreign awaitingFailure() {
  co_await failing<MainQueue>();
}

TEST(Task, AForeignCoroutinesExceptionLeavesThroughTheQueue) {
  const Foreign host = awaitingFailure();
  MainQueue::post([] {});
  EXPECT_THROW((void)drainUntil([] { return false; }), std::runtime_error);
  EXPECT_TRUE(isReadable());
  EXPECT_EQ(MainQueue::drain(), 1U) << "the rest is there";
  host.handle.destroy();
}

TEST(MainQueue, RunsWhatWasQueuedWhenItBeganUnlessALoopInsideAJobHas) {
  std::string order;
  const auto post = [&](char name) { MainQueue::post([&order, name] { order += name; }); };
  MainQueue::post([&] {
    EXPECT_TRUE(isReadable()) << "the loop inside hears of the rest";
    post('b');
    EXPECT_EQ(MainQueue::drain(), 2U);
    EXPECT_FALSE(isReadable());
    post('c');
  });
  post('a');
  EXPECT_EQ(MainQueue::drain(), 1U);
  EXPECT_EQ(order, "ab");
  EXPECT_TRUE(isReadable()) << "more is left";
  std::thread([] { EXPECT_EQ(MainQueue::drain(), 0U) << "on another thread"; }).join();
  EXPECT_EQ(MainQueue::drain(), 1U);
  EXPECT_EQ(order, "abc");
  EXPECT_FALSE(isReadable());
}

TEST(MainQueue, EdgeTriggeredLoopsMissNothing) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {}};
  ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, MainQueue::fd(), &event), 0);
  MainQueue::post([] { MainQueue::post([] { MainQueue::post([] {}); }); });
  for (std::size_t runs = 0; runs < 3; runs += MainQueue::drain())
    ASSERT_EQ(epoll_wait(epoll, &event, 1, 5000), 1);
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

TEST(MainQueue, TakesJobsFromManyThreadsAndRunEndsWithStopFromAny) {
  MainQueue::stop();
  MainQueue::drain();
  MainQueue::run();  // ends at once: the stop was meant for it
  int runs = 0;
  const auto postMany = [&] {
    for (int job = 0; job < 2000; ++job) MainQueue::post([&] { ++runs; });
  };
  const std::jthread one(postMany);
  const std::jthread two(postMany);
  EXPECT_TRUE(drainUntil([&] { return runs == 4000; }));
  const std::jthread three([] { MainQueue::stop(); });
  MainQueue::run();
}

}  // namespace
}  // namespace quorva::platform
