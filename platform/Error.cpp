#include "platform/Error.h"

namespace quorva::platform {

Error::~Error() = default;

const char* Error::what() const noexcept {
  return held_->what.c_str();
}

Error Error::from(const std::exception_ptr& exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const Error& error) {
    return error;
  } catch (const std::exception& foreign) {
    return ForeignError{foreign.what()};
  } catch (...) {
    return ForeignError{"unknown exception"};
  }
}

void throwError(const Error& error) {
  throw error;
}

}  // namespace quorva::platform
