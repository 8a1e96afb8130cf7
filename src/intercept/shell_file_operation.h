// Replacement of SHFileOperationW, hooked on systems older than major version 6.
#pragma once
#include <windows.h>
#include <shellapi.h>

// The exported entry, taken at set-up; calls through it from the replacement reach the original.
extern decltype(&SHFileOperationW) g_SHFileOperationW;

int WINAPI Hook_SHFileOperationW(LPSHFILEOPSTRUCTW operation);
