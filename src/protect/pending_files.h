// The pending encrypted-file table: secret sources waiting for their copies to be encrypted.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

// Appends one (path, password) entry per secret file (UTF-8, duplicates kept), under the tables'
// lock, when both the list and the password are non-empty.
void register_pending_encrypted_files(const std::vector<std::string>& secret_files, const std::string& password);

// After a successful copy or move of `source` to `destination`: when an entry for `source`
// exists (first match, ASCII case-insensitive), replaces the destination by its encrypted form
// and erases that entry. When the encrypted form cannot be written whole, a copied destination is
// deleted and a `moved` one moved back to `source`. No string work when the table is empty.
void TakeAndTransform(const wchar_t* source, const wchar_t* destination, bool moved = false);

// Removes every entry (interception tear-down), when the tables' lock is free.
void clear_pending_encrypted_files();

// Number of entries, for diagnostics and tests.
size_t pending_encrypted_file_count();
