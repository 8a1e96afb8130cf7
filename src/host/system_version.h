// Which generation of Windows the process runs on.
#pragma once

// True on an NT-family system (platform id 2) of major version 6 or later.
bool is_nt6_or_later();
// True when the extended version record reports major version 6 or later.
bool is_vista_or_later();
