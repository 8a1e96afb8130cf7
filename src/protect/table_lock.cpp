#include "protect/table_lock.h"

namespace protect {
namespace {

// Created by the runtime's start-up of this module (before its entry runs) and deleted by its
// end (after the entry's detach), so every caller finds it ready.
struct TablesSection {
  CRITICAL_SECTION cs;
  TablesSection() { InitializeCriticalSection(&cs); }
  ~TablesSection() { DeleteCriticalSection(&cs); }
} g_tables;

}  // namespace

TableLock::TableLock() { EnterCriticalSection(&g_tables.cs); }
TableLock::~TableLock() { LeaveCriticalSection(&g_tables.cs); }

TableTryLock::TableTryLock() : owns_(TryEnterCriticalSection(&g_tables.cs) != FALSE) {}
TableTryLock::~TableTryLock() {
  if (owns_) LeaveCriticalSection(&g_tables.cs);
}

}  // namespace protect
