// What programs look into by the inline code of the headers, though no function of the library
// takes it: the frame of a task, which either side may have made, and an error that began as an
// exception.

#include <QuorvaSDK/QuorvaSDK.h>

namespace quorva {

template <class Result>
using Frame = typename Task<Result>::promise_type;

QUORVA_EXPORT Frame<std::optional<std::string>> shortLink;
QUORVA_EXPORT Frame<ResolvedLink> resolvedLink;
QUORVA_EXPORT Frame<void> nothing;
QUORVA_EXPORT platform::ForeignError foreignError;

}  // namespace quorva
