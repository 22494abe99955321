// What the fuzz targets share. Each defines `fuzz`, which is given bytes to do its worst with, and
// ends the process by `check` where something doesn't hold that should for any bytes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

inline void check(bool holds) {
  if (!holds) std::abort();
}

void fuzz(std::string_view bytes);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz({reinterpret_cast<const char*>(data), size});
  return 0;
}
