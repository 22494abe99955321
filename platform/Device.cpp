#include "platform/Device.h"

#include <mutex>
#include <utility>

#include "platform/SystemReadings.h"

namespace quorva::platform {
namespace {

struct State {
  std::mutex mutex;
  DeviceTraits given;  // guarded by mutex
};

State& state() {
  static State& instance = *new State;
  return instance;
}

template <class T>
std::optional<T> given(std::optional<T> DeviceTraits::*trait) {
  const std::scoped_lock lock(state().mutex);
  return state().given.*trait;
}

}  // namespace

void Device::describe(DeviceTraits traits) {
  const std::scoped_lock lock(state().mutex);
  std::swap(state().given, traits);
}

UserInterfaceIdiom Device::userInterfaceIdiom() {
  const auto idiom = given(&DeviceTraits::userInterfaceIdiom);
  return idiom ? *idiom : readIdiom("/").value_or(UserInterfaceIdiom::unspecified);
}

std::string Device::systemVersion() {
  const auto version = given(&DeviceTraits::systemVersion);
  return version ? *version : readDistributionVersion("/").value_or(readKernel().release);
}

std::string Device::model() {
  const auto model = given(&DeviceTraits::model);
  return model ? *model : readProductName("/").value_or(readKernel().machine);
}

std::string Device::name() {
  const auto name = given(&DeviceTraits::name);
  return name ? *name : readKernel().nodename;
}

Size Device::screen() {
  const auto screen = given(&DeviceTraits::screen);
  return screen ? *screen : readDisplay("/").value_or(Size());
}

}  // namespace quorva::platform
