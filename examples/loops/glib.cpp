// GLib's main loop, and so GTK's. `loop_glib PORT CA-FILE` makes a link.

#include <glib-unix.h>

#include "MakeLink.h"

int main(int argc, char** argv) {
  GSource* const queue = g_unix_fd_source_new(quorva::MainQueue::fd(), G_IO_IN);
  const GUnixFDSourceFunc drain = [](gint, GIOCondition, gpointer) -> gboolean {
    quorva::MainQueue::drain();
    return G_SOURCE_CONTINUE;
  };
  g_source_set_callback(queue, G_SOURCE_FUNC(drain), nullptr, nullptr);
  g_source_set_can_recurse(queue, TRUE);  // for a dialog that a callback runs
  g_source_attach(queue, nullptr);
  g_source_unref(queue);

  int status = EXIT_FAILURE;
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  makeLink(argc, argv, [&](int result) {
    status = result;
    g_main_loop_quit(loop);
  });
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
  return status;
}
