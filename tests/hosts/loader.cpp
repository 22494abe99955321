// A host that loads the library, has it work, and unloads it while it does, again and again. Isn't
// linked with it.
//
//     loader PORT CA-FILE LIBRARY ROUNDS
//
// Says on standard output what the process held after half of the rounds and at the end.

#include <dlfcn.h>

#include <cstdlib>

#include "tests/hosts/Holdings.h"

int main(int, char** argv) {
  const int port = std::atoi(argv[1]);
  const int rounds = std::atoi(argv[4]);
  for (int i = 1; i <= rounds; ++i) {
    void* const library = dlopen(argv[3], RTLD_NOW | RTLD_LOCAL);
    void* const function = library ? dlsym(library, "askForLinks") : nullptr;
    if (!function) return 1;
    reinterpret_cast<void (*)(int, const char*)>(function)(port, argv[2]);
    dlclose(library);
    if (i == rounds / 2 || i == rounds) quorva::test::printHoldings();
  }
  return 0;
}
