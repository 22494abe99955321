// What a process has that it could lose track of.

#pragma once

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace quorva::test {

/// Prints how many KiB are resident and how many descriptors are open, and how many threads run.
inline void printHoldings() {
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  long total = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  std::printf("%ld %ld %ld\n", resident * (sysconf(_SC_PAGESIZE) / 1024), count("/proc/self/fd"),
              count("/proc/self/task"));
}

}  // namespace quorva::test
