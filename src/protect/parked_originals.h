// Secret sources swapped for their encrypted form while the shell copy engine copies them, and
// the parking of their untouched originals. Every original is parked in a folder of this process
// under %TEMP%\kwindel-parked\ (one folder per process: <pid>-<start time>-<k>), never deleted
// or overwritten by the library, and put back after PerformOperations, at process detach, or by
// the recovery of a later load after the process died. A process folder holds:
//   owner.lock  open without sharing (deleted on close) while its process tracks the folder
//   N.rec       UTF-8: the source's full path, "\n", the original's MD5 in hex, "\n"
//   N.orig      the parked original; N.enc  the encrypted form while it is being written
// Folders whose originals could not be put back are renamed <name>.stranded and left to
// `kwctl --recover`. All functions here are safe to call from any thread.
#pragma once
#include <string>
#include <vector>

enum class SwapOutcome {
  kSwapped,  // the source holds its encrypted form, its original is parked and recorded
  kSkipped,  // nothing to do: swapped already, already in encrypted form, or not there
  kFailed,   // the source is untouched and must not be copied in plaintext
};

// Swaps one secret source (UTF-8 path) for its encrypted form under `password`. The encrypted
// form is written whole into the process folder before anything is moved.
SwapOutcome swap_source(const std::string& source, const std::string& password);

// Puts back the originals of these sources (a refused call undoing its own swaps).
void restore_sources(const std::vector<std::string>& sources);

// After an executed PerformOperations: puts back every parked original of this process. A place
// held open is retried for a moment; an original that still cannot go back stays parked and in
// the table; one whose place now holds a file the user made stays parked, out of the table.
void restore_swapped_sources();

// Process detach: as restore_swapped_sources without waiting (the table lock only if free, no
// retries), then empties the table and gives up the process folder (removed when nothing is
// left in it, otherwise left to the recovery of a later load).
void restore_all_parked();

// Entries waiting for a restore, for diagnostics and tests.
size_t swapped_source_file_count();

// Replaces `file` (UTF-8) by its encrypted form for good (a move's source, a pre-6 copy's
// destination). True when replaced or nothing to do (not there, already in encrypted form); false, with the
// file untouched, when the encrypted form could not be written whole or not moved in.
bool encrypt_in_place(const std::string& file, const std::string& password);

// Recovery at library load: when %TEMP%\kwindel-parked exists (one probe when it does not) and no
// other process is recovering, puts back the originals of every process folder whose owner is
// gone. Never waits on another thread or process.
void recover_parked_originals();

struct ParkedOriginal {
  std::wstring source;  // where it belongs
  std::wstring parked;  // where it is kept
};
// `kwctl --recover`: the same recovery, also over stranded folders; returns what stays parked
// and counts the originals put back in *restored. False when another process is recovering.
bool recover_and_list_parked_originals(std::vector<ParkedOriginal>* left, int* restored);
