// The files an audit record names for a copy or move.
#pragma once
#include <string>
#include <vector>

// `sources` (UTF-8) in order, each one that is a folder (links followed) replaced by the files
// the folder walk lists below it, or by nothing when it lists none.
std::vector<std::string> list_audited_files(const std::vector<std::string>& sources);
