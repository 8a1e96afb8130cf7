// Expansion of a folder into the regular files below it, at every depth.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// Appends the regular files under `folder` (UTF-8) to `out`, depth first in the order the file
// system enumerates them (folders themselves are never listed), and returns out.size() after the
// walk; returns 0 when the folder cannot be opened or a status query fails (what was appended
// stays). A subfolder that cannot be opened is skipped. Links to folders are followed, except a
// link back to a folder of the current chain, which would never end.
int32_t get_filepaths_from_folder(std::string folder, std::vector<std::string>& out);
