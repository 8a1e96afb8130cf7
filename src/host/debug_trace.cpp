#include "host/debug_trace.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>

namespace {
char g_trace_buffer[kTraceBufferSize];
}

void DebugTrace(const char* function, int message_number, const char* format, ...) {
  int used = std::snprintf(g_trace_buffer, sizeof g_trace_buffer, "[%s,%d] : ", function, message_number);
  if (used < 0) return;
  if (static_cast<size_t>(used) < sizeof g_trace_buffer - 1) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(g_trace_buffer + used, sizeof g_trace_buffer - used, format, args);
    va_end(args);
  }
  g_trace_buffer[sizeof g_trace_buffer - 1] = '\0';
  OutputDebugStringA(g_trace_buffer);
}
