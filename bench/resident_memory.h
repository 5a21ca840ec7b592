// The process's resident set, for the benchmarks that report memory growth.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdio>

namespace trv::bench {

// Bytes resident now (from /proc/self/statm); 0 when it cannot be read.
inline size_t ResidentBytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace trv::bench
