// Secret sources swapped for their encrypted form while the shell copy engine copies or moves
// them, and the parking of their untouched originals. Every original is parked in a folder of this
// process under the user's own parking folder (%LOCALAPPDATA%\kwindel\parked, readable only by
// the user and the system; one folder per process: <pid>-<start time>-<k>), never deleted or
// overwritten by the library while it is needed, and put back when the last operation that queued
// its source has run or was released, at process detach, or by the recovery of a later load after
// the process died. A process folder holds:
//   owner.lock  open without sharing (deleted on close) while its process tracks the folder
//   N.rec       UTF-8: the source's full path, "\n", the original's MD5 in hex, "\n"
//   N.orig      the parked original
//   N.missing   a record whose original vanished from the folder: kept for an administrator
// The encrypted form is written beside its source and renamed over it in one step. Folders whose
// originals could not be put back because another file holds their place are renamed
// <name>.stranded and left to `kwctl --recover`. All functions here are safe from any thread.
#pragma once
#include <string>
#include <vector>

// The shell operation (its IFileOperation object) that queued a swap.
using OperationKey = const void*;

enum class SwapOutcome {
  kSwapped,  // the source holds its encrypted form, its original is parked and recorded
  kHeld,     // already swapped (by another operation or process): now also held by this one
  kSkipped,  // nothing to do: held by this operation already, or not there
  kFailed,   // the source is untouched and must not be copied or moved in plaintext
};

// Swaps one secret source (UTF-8 path) for its encrypted form under `password` for operation
// `op`, which holds it until finish_operation. `moved_to` is where a move will carry the source
// ("" for a copy): a source found there in encrypted form after the move needs no restore.
SwapOutcome swap_source(OperationKey op, const std::string& source, const std::string& password,
                        const std::wstring& moved_to);

// A refused call undoing its own swaps: `op` lets go of these sources (restored when nobody else
// holds them).
void restore_sources(OperationKey op, const std::vector<std::string>& sources);

// After an executed PerformOperations of `op`, or when `op` is released: lets go of every source
// it holds and puts back each original that no other operation (of any process) still needs. A
// place held open is retried for a moment and then at the next finish; a parked original that
// went missing is traced and its record kept; one whose place now holds a file the user made
// stays parked.
void finish_operation(OperationKey op);

// True when `op` holds swapped sources.
bool operation_holds_swaps(OperationKey op);

// Process detach: puts back what no other process needs, without waiting (every lock only if
// free, no retries), then empties the table and gives up the process folder (removed when nothing
// is left in it, otherwise left to the recovery of a later load).
void restore_all_parked();

// Entries waiting for a restore, for diagnostics and tests.
size_t swapped_source_file_count();

// Replaces `file` (UTF-8) by its encrypted form for good (a pre-6 copy's or move's destination).
// The encrypted form is written beside the file and renamed over it. True when replaced or
// nothing to do (not there, already in encrypted form); false, with the file untouched, when the
// encrypted form could not be written whole or not moved in.
bool encrypt_in_place(const std::string& file, const std::string& password);

// Recovery of originals that processes which died left parked: when the parking folder exists and
// no other process is recovering, puts back the originals of every process folder whose owner is
// gone. Never waits on another thread or process; does file work, so never under the loader lock.
void recover_parked_originals();

struct ParkedOriginal {
  std::wstring source;  // where it belongs
  std::wstring parked;  // where it is kept (for a missing original: where it was)
};
// `kwctl --recover`: the same recovery, also over stranded folders; returns what stays parked or
// is missing and counts the originals put back in *restored. False when another process is
// recovering.
bool recover_and_list_parked_originals(std::vector<ParkedOriginal>* left, int* restored);

// The user's parking folder (no trailing backslash); "" when it cannot be had.
std::wstring parking_root();
