#include "localservice/News.h"

namespace localservice {

void News::announce() {
  const std::scoped_lock lock(mutex_);
  ++count_;
  changed_.notify_all();
}

std::uint64_t News::waitFor(std::uint64_t known, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, longest, [&] { return count_ != known || isOver_; });
  return count_;
}

void News::pause(std::chrono::milliseconds span) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, span, [&] { return isOver_; });
}

void News::end() {
  const std::scoped_lock lock(mutex_);
  isOver_ = true;
  changed_.notify_all();
}

bool News::isOver() {
  const std::scoped_lock lock(mutex_);
  return isOver_;
}

}  // namespace localservice
