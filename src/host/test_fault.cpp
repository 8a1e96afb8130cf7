// Test builds only: an export that faults inside the library (an access violation in a function
// of its own, not exported), so that the tests can name a real crash from the PDB alone.
#include <windows.h>

__attribute__((noinline)) void test_fault_write(volatile int* where) { *where = 1; }

extern "C" __declspec(dllexport) void WINAPI KwindelTestFault(volatile int* where) { test_fault_write(where); }
