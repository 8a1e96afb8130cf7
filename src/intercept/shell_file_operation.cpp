#include "intercept/shell_file_operation.h"

decltype(&SHFileOperationW) g_SHFileOperationW = nullptr;

// Pass-through until the screening lands.
int WINAPI Hook_SHFileOperationW(LPSHFILEOPSTRUCTW operation) { return g_SHFileOperationW(operation); }
