// Tells those who watch the service that something happened.
//
// Any thread.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace localservice {

class News {
 public:
  /// Something happened.
  void announce();

  /// Waits until something has happened since `known`, for as long as given at most, or until the
  /// end: what is known now, `known` itself if nothing happened.
  [[nodiscard]] std::uint64_t waitFor(std::uint64_t known, std::chrono::milliseconds longest);

  /// Waits that long, or until the end.
  void pause(std::chrono::milliseconds span);

  /// The service ends: nobody waits any longer.
  void end();
  [[nodiscard]] bool isOver();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_:
  std::uint64_t count_ = 0;
  bool isOver_ = false;
};

}  // namespace localservice
