// Coroutines that stay where they belong.
//
// A Task is bound to an executor by its type and runs on it alone: after every `co_await` it goes
// on there. What is public is bound to the application's thread (MainQueue).
//
// Lifetimes: a Task does nothing until it is awaited or started. Destroyed before, it never runs;
// destroyed while under way, as when a host gives up a coroutine of its own, it goes on to its end
// and its outcome is dropped. Errors: `co_await` throws what the coroutine threw; `result()` and
// `start` give it as a value.
//
// g++ 12 destroys some temporaries of a `co_await` expression twice (aggregates, lambdas that
// capture): name arguments first and await once a statement.

#pragma once

#include <atomic>
#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "Error.h"
#include "MainQueue.h"

namespace quorva::platform {

template <class T, class Executor = MainQueue>
class Task;

namespace detail {

// Where a coroutine stands between itself, whoever awaits it and whoever owns it. Each leaves its
// mark; the second of two that meet acts for both.
enum class Stage : unsigned char { idle, running, awaited, finished, abandoned };

class PromiseBase {
 public:
  [[nodiscard]] std::suspend_always initial_suspend() const noexcept { return {}; }

  struct FinalAwaiter {
    [[nodiscard]] bool await_ready() const noexcept { return false; }
    void await_resume() const noexcept {}

    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> self) const noexcept {
      PromiseBase& promise = self.promise();
      const auto awaiting = promise.awaiting_;
      const auto postAwaiting = promise.postAwaiting_;
      switch (promise.stage_.exchange(Stage::finished)) {
        case Stage::awaited:
          if (!postAwaiting) return awaiting;
          postAwaiting(awaiting);
          break;
        case Stage::abandoned:
          self.destroy();
          break;
        default:
          break;
      }
      return std::noop_coroutine();
    }
  };
  [[nodiscard]] FinalAwaiter final_suspend() const noexcept { return {}; }

  // Runs the coroutine here until it first waits. False if it has finished by then: `awaiting`
  // needn't wait.
  bool startHere(std::coroutine_handle<> self, std::coroutine_handle<> awaiting) {
    awaiting_ = awaiting;
    stage_ = Stage::running;
    self.resume();
    auto stage = Stage::running;
    return stage_.compare_exchange_strong(stage, Stage::awaited);
  }

  // Has the coroutine run by `post`. `awaiting` goes on by `postAwaiting`, or where the coroutine
  // ends if null.
  using Post = void (*)(std::function<void()>);
  void startBy(Post post, std::coroutine_handle<> self, std::coroutine_handle<> awaiting,
               Post postAwaiting) {
    awaiting_ = awaiting;
    postAwaiting_ = postAwaiting;
    stage_ = Stage::awaited;
    post(self);
  }

  // Whether the owner is to destroy the coroutine; one under way destroys itself when it ends.
  [[nodiscard]] bool release() noexcept {
    return stage_ == Stage::idle || stage_.exchange(Stage::abandoned) == Stage::finished;
  }

 private:
  std::atomic<Stage> stage_ = Stage::idle;
  std::coroutine_handle<> awaiting_;
  Post postAwaiting_ = nullptr;
};

template <class T>
class Outcome : public PromiseBase {
 public:
  template <std::convertible_to<T> U>
  void return_value(U&& value) {
    outcome_.template emplace<1>(std::forward<U>(value));
  }
  void unhandled_exception() noexcept { outcome_.template emplace<2>(std::current_exception()); }

  [[nodiscard]] T take() {
    if (const auto* thrown = std::get_if<2>(&outcome_)) std::rethrow_exception(*thrown);
    return std::move(*std::get_if<1>(&outcome_));
  }
  [[nodiscard]] Result<T> takeResult() {
    if (const auto* thrown = std::get_if<2>(&outcome_)) return Error::from(*thrown);
    return std::move(*std::get_if<1>(&outcome_));
  }

 private:
  std::variant<std::monostate, T, std::exception_ptr> outcome_;
};

template <>
class Outcome<void> : public PromiseBase {
 public:
  void return_void() const noexcept {}
  void unhandled_exception() noexcept { exception_ = std::current_exception(); }

  void take() const {
    if (exception_) std::rethrow_exception(exception_);
  }
  [[nodiscard]] Result<void> takeResult() const {
    return exception_ ? Result<void>(Error::from(exception_)) : Result<void>();
  }

 private:
  std::exception_ptr exception_;
};

}  // namespace detail

/// A coroutine that yields a `T` or throws. Await it once:
///
///     std::optional<std::string> shortLink = co_await Quorva::createDynamicLink(link);
///
/// or, outside a coroutine, `start` it. A coroutine of any other type may await a Task, on the
/// Task's own thread.
template <class T, class Executor>
class [[nodiscard]] Task {
 public:
  struct promise_type : detail::Outcome<T> {
    using TaskExecutor = Executor;
    Task get_return_object() noexcept {
      return Task(std::coroutine_handle<promise_type>::from_promise(*this));
    }
  };

  /// Takes the coroutine over.
  Task(Task&& other) noexcept : coroutine_(std::exchange(other.coroutine_, nullptr)) {}
  /// Takes the coroutine over, and leaves its own.
  Task& operator=(Task&& other) noexcept {
    std::swap(coroutine_, other.coroutine_);
    return *this;
  }
  ~Task() {
    if (coroutine_ && coroutine_.promise().release()) coroutine_.destroy();
  }

  /// Runs the coroutine, and goes on when it has ended: yields its `T` or throws its error.
  auto operator co_await() && noexcept { return Awaiter{coroutine_}; }

  /// To be awaited in place of the Task: yields a Result<T> and never throws.
  auto result() && noexcept { return ResultAwaiter{coroutine_}; }

 private:
  using Handle = std::coroutine_handle<promise_type>;

  explicit Task(Handle coroutine) noexcept : coroutine_(coroutine) {}

  class Awaiter {
   public:
    explicit Awaiter(Handle coroutine) noexcept : coroutine_(coroutine) {}
    [[nodiscard]] bool await_ready() const noexcept { return false; }

    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> awaiting) const {
      auto& promise = coroutine_.promise();
      if constexpr (requires { typename Promise::TaskExecutor; }) {
        using Awaiting = typename Promise::TaskExecutor;
        if constexpr (std::is_same_v<Awaiting, Executor>) {
          return promise.startHere(coroutine_, awaiting);
        } else {
          promise.startBy(&Executor::post, coroutine_, awaiting, &Awaiting::post);
        }
      } else {
        promise.startBy(&Executor::post, coroutine_, awaiting, nullptr);
      }
      return true;
    }

    T await_resume() const { return coroutine_.promise().take(); }

   protected:
    Handle coroutine_;
  };

  class ResultAwaiter : public Awaiter {
   public:
    using Awaiter::Awaiter;
    Result<T> await_resume() const { return this->coroutine_.promise().takeResult(); }
  };

  Handle coroutine_;
};

namespace detail {

// A coroutine that nobody awaits: it begins at once and frees itself.
struct Detached {
  struct promise_type {
    [[nodiscard]] Detached get_return_object() const noexcept { return {}; }
    [[nodiscard]] std::suspend_never initial_suspend() const noexcept { return {}; }
    [[nodiscard]] std::suspend_never final_suspend() const noexcept { return {}; }
    void return_void() const noexcept {}
    [[noreturn]] void unhandled_exception() const noexcept { std::terminate(); }
  };
};

template <class T, class Executor, class Callback>
Detached run(Task<T, Executor> task, std::shared_ptr<Callback> callback) {
  Result<T> outcome = co_await std::move(task).result();
  // A job of its own: what the callback throws leaves through the queue, not through a coroutine.
  MainQueue::post([callback, held = std::make_shared<Result<T>>(std::move(outcome))] {
    (*callback)(std::move(*held));
  });
}

template <class Executor>
Detached drop(Task<void, Executor> task) {
  static_cast<void>(co_await std::move(task).result());
}

}  // namespace detail

/// Starts `task` and forgets it: its outcome goes nowhere. Any thread.
template <class Executor>
void detach(Task<void, Executor> task) {
  detail::drop(std::move(task));
}

/// Starts `task` and returns at once; `callback` is called exactly once, later, on the
/// application's thread. Any thread.
template <class T, class Executor, std::invocable<Result<T>> Callback>
void start(Task<T, Executor> task, Callback callback) {
  // Shared, as the outcome is, so that what can't be copied will do.
  detail::run(std::move(task), std::make_shared<Callback>(std::move(callback)));
}

}  // namespace quorva::platform
