// The one-line debug trace: "[function,line] : message" to the debugger output.
#pragma once
#include <cstddef>

constexpr size_t kTraceBufferSize = 256;

// Formats "[%s,%d] : " + the message into the process-wide 256-byte buffer and passes it to
// OutputDebugStringA. A line that does not fit is cut at the buffer's end. Not locked: lines of
// two threads tracing at once may interleave, which is accepted.
// `message_number` is the message's fixed number, part of its identity for whoever reads the
// trace (not a source line: it never changes when the code moves); each message keeps its own.
void DebugTrace(const char* function, int message_number, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
