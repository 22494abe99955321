// A plugin that holds the library, for a host that knows nothing of either.

#include "tests/hosts/Requests.h"

namespace {

int waiting = 0;  // for answers

void answered(bool) {
  --waiting;
}

}  // namespace

extern "C" {

/// Takes the answers to what was asked before, if any, and asks anew.
QUORVA_EXPORT void askForLinks(int port, const char* certificateAuthority) {
  while (waiting > 0) quorva::test::waitAndDrain();
  quorva::useLocalService(static_cast<std::uint16_t>(port), certificateAuthority);
  waiting = 21;
  quorva::test::initialize(answered);
  for (int i = 0; i < 20; ++i) quorva::test::request(i, answered);
}
}
