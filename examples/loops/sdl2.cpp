// SDL's event loop, which polls no descriptors: it is woken by an event. `loop_sdl2 PORT CA-FILE`
// makes a link.

#include <SDL.h>

#include "MakeLink.h"

namespace {

// SDL takes events from any thread.
void push(Uint32 type) {
  SDL_Event event{};
  event.type = type;
  SDL_PushEvent(&event);
}

}  // namespace

int main(int argc, char** argv) {
  if (SDL_Init(SDL_INIT_EVENTS) != 0) {
    std::fprintf(stderr, "%s: %s\n", argv[0], SDL_GetError());
    return EXIT_FAILURE;
  }
  // The library's threads may wake the loop until they stop, as the process exits: right before.
  std::atexit(SDL_Quit);
  quorva::MainQueue::setWakeCallback([wake = SDL_RegisterEvents(1)] { push(wake); });

  int status = EXIT_FAILURE;
  makeLink(argc, argv, [&](int result) {
    status = result;
    push(SDL_QUIT);
  });
  // Whatever woke it: SDL drops events, also this one, while very many wait.
  for (SDL_Event event; SDL_WaitEvent(&event) && event.type != SDL_QUIT;)
    quorva::MainQueue::drain();
  return status;
}
