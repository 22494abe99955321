// A loop of one's own, over poll(2). `loop_poll PORT CA-FILE` makes a link.

#include <poll.h>

#include <optional>

#include "MakeLink.h"

int main(int argc, char** argv) {
  std::optional<int> status;
  makeLink(argc, argv, [&](int result) { status = result; });
  while (!status) {
    pollfd queue{quorva::MainQueue::fd(), POLLIN, 0};
    poll(&queue, 1, -1);
    quorva::MainQueue::drain();
  }
  return *status;
}
