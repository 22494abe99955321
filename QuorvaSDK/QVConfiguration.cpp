#include "QuorvaSDK/QVConfiguration.h"

namespace quorva {

QuorvaDelegate::~QuorvaDelegate() = default;

void QuorvaDelegate::quorvaDidInitialize(const QVConfiguration&) {}
void QuorvaDelegate::quorvaDidFailToInitialize(const Error&) {}
void QuorvaDelegate::quorvaDidResolveDeepLink(const URL&, const Metadata&) {}
void QuorvaDelegate::quorvaDidFailToResolveDeepLink(const std::optional<URL>&, const Error&) {}

}  // namespace quorva
