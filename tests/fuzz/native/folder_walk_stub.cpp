// Stand-in for the Windows folder walk in the native fuzz build: lists nothing, so a source
// that is a folder contributes no File to a copy audit record (the walk itself is tested under
// Wine; fuzzing it would walk the host's file system).
#include "protect/folder_walk.h"

int32_t get_filepaths_from_folder(std::string, std::vector<std::string>&) { return 0; }
