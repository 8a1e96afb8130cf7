// The clock and the summary every benchmark program uses.
#pragma once
#include <windows.h>

#include <algorithm>
#include <vector>

// Seconds on the performance counter.
inline double now_seconds() {
  LARGE_INTEGER counter, frequency;
  QueryPerformanceCounter(&counter);
  QueryPerformanceFrequency(&frequency);
  return double(counter.QuadPart) / double(frequency.QuadPart);
}

// The median of the rounds (0 when there are none).
inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}
