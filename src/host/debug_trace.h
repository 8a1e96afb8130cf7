// The one-line debug trace: "[function,line] : message" to the debugger output.
#pragma once
#include <cstddef>

constexpr size_t kTraceBufferSize = 256;

// Formats "[%s,%d] : " + the message into the process-wide 256-byte buffer and passes it to
// OutputDebugStringA. A line that does not fit is cut at the buffer's end. Not locked: lines of
// two threads tracing at once may interleave, which is accepted.
void DebugTrace(const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
