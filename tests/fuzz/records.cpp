// The service's answers, from a service that answers anything.

#include "QuorvaSDK/ResolvedLink.h"
#include "QuorvaSDK/ServiceRecords.h"
#include "tests/fuzz/Fuzz.h"

using namespace quorva;

namespace {

// What was read is written so that it's read again as the same.
template <class T>
void read(std::string_view text) {
  try {
    const std::string written =
        platform::serializeJSON(platform::encode(platform::decodeText<T>(text))).value();
    const auto again = platform::decodeText<T>(written);
    check(platform::serializeJSON(platform::encode(again)).value() == written);
  } catch (const Error& error) {
    check(error.as<DecodingError>());
  }
}

}  // namespace

void fuzz(std::string_view text) {
  read<CreateDynaminLinkResponse>(text);
  read<ErrorResponse>(text);
  read<IdentityResponse>(text);
  read<ResolvedDeeplinkResponse>(text);
  read<DeferredDeeplinkResponse>(text);
  const auto resolved = JSONDecoder().decode<ResolvedLink>(text);
  if (!resolved) return;
  const std::string written = JSONEncoder().encode(*resolved).value();
  check(JSONDecoder().decode<ResolvedLink>(written).value() == *resolved);
}
