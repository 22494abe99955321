// What the service learns about the machine and the application. Read anew each time.

#pragma once

#include <string>
#include <string_view>

#include "platform/Device.h"
#include "platform/GeneralExecutor.h"
#include "platform/JSON.h"
#include "platform/Task.h"

namespace quorva {

/// The library's version, as the service is told it.
inline constexpr std::string_view sdkVersion = "1.0.0";

/// The hardware's name as the kernel gives it; "N/A" where that is no UTF-8. On the application's
/// thread.
[[nodiscard]] std::string modelIdentifier();

/// What the service calls a machine of this kind. Any thread.
[[nodiscard]] std::string_view platformName(platform::UserInterfaceIdiom idiom);

/// A reading on the application's thread, for work that runs elsewhere.
template <class T>
[[nodiscard]] platform::Task<T> onMainThread(T (*reading)()) {
  co_return reading();
}

/// The device description: thirteen keys. Each of its device readings waits for the application's
/// thread.
[[nodiscard]] platform::Task<platform::JSONValue::Object, platform::GeneralExecutor>
deviceDescription();

}  // namespace quorva
