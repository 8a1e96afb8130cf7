// The one lock of the protected-file tables (the pending table and the swapped-source table).
// It exists from the library's load to its unload; nothing has to create or delete it.
#pragma once
#include <windows.h>

namespace protect {

// Holds the tables' lock for a scope. Never take another lock while holding it.
class TableLock {
 public:
  TableLock();
  ~TableLock();
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
};

// Holds the lock for a scope only if it was free: for the process detach, which must not wait on
// a thread (one ended at process exit may still own it).
class TableTryLock {
 public:
  TableTryLock();
  ~TableTryLock();
  bool owns() const { return owns_; }
  TableTryLock(const TableTryLock&) = delete;
  TableTryLock& operator=(const TableTryLock&) = delete;
 private:
  bool owns_;
};

}  // namespace protect
