// libuv's loop. `loop_uv PORT CA-FILE` makes a link.

#include <uv.h>

#include "MakeLink.h"

int main(int argc, char** argv) {
  uv_loop_t* const loop = uv_default_loop();
  uv_poll_t queue;
  uv_poll_init(loop, &queue, quorva::MainQueue::fd());
  uv_poll_start(&queue, UV_READABLE, [](uv_poll_t*, int, int) { quorva::MainQueue::drain(); });

  int status = EXIT_FAILURE;
  makeLink(argc, argv, [&](int result) {
    status = result;
    uv_close(reinterpret_cast<uv_handle_t*>(&queue), nullptr);  // the loop's last: it ends
  });
  uv_run(loop, UV_RUN_DEFAULT);
  uv_loop_close(loop);
  return status;
}
