// The four exported control functions (see include/kwindel.h) and the window-hook procedure.
#pragma once
#include <windows.h>

// The hook procedure: exists only so the system maps the library into every process that gets
// window messages; passes everything on.
LRESULT CALLBACK CallNextHookProc(int code, WPARAM wparam, LPARAM lparam);
