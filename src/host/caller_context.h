// Who is calling: the process's name and the user's SID, as the agent's documents carry them.
#pragma once
#include <string>

// The part of a UTF-8 path after its last backslash; "" when there is no backslash or the only
// one is the first character.
std::string process_name_from_path(const std::string& utf8_path);

// Name of the main executable (last path component, UTF-8, case as the file system gives it).
std::string get_process_name();

// The calling user's SID in its S-1-5-... string form, UTF-8; "" when anything fails.
std::string get_user_sid_string();
