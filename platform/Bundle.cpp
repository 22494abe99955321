#include "platform/Bundle.h"

#include <errno.h>
#include <libintl.h>

#include <filesystem>
#include <mutex>
#include <utility>

namespace quorva::platform {
namespace {

struct State {
  std::mutex mutex;
  Bundle bundle;  // guarded by mutex
};

State& state() {
  static State& instance = *new State;
  return instance;
}

}  // namespace

Bundle Bundle::main() {
  const std::scoped_lock lock(state().mutex);
  return state().bundle;
}

void Bundle::setMain(Bundle bundle) {
  const std::scoped_lock lock(state().mutex);
  std::swap(state().bundle, bundle);
}

std::string executableName() {
  std::error_code unreadable;
  const auto path = std::filesystem::read_symlink("/proc/self/exe", unreadable);
  std::string name = unreadable ? program_invocation_short_name : path.filename().string();
  // As the kernel calls a program whose file was replaced, by an update, while it runs.
  constexpr std::string_view replaced = " (deleted)";
  if (name.ends_with(replaced)) name.erase(name.size() - replaced.size());
  return name;
}

std::string localizedString(const char* key) {
  return gettext(key);
}

}  // namespace quorva::platform
