// The operation result report: a one-way Data document telling the agent what came of an
// operation. Complete, but no part of the library sends it yet.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// Data with attribute action (written as a signed 32-bit value), then one File (attribute
// path) per path of `first_paths`, then one per path of `second_paths`. Compact, no declaration.
std::string build_operation_result_document(const std::vector<std::string>& first_paths,
                                            const std::vector<std::string>& second_paths, uint32_t action);

// Sends the report with its own WSAStartup(2.0)/WSACleanup and a 1000 ms acknowledgement
// time-out. 1 when every chunk was sent and acknowledged; 0 otherwise, and 0 without any Winsock
// call when both lists are empty.
int ReportOperationResult(const std::vector<std::string>& first_paths, const std::vector<std::string>& second_paths,
                          uint32_t action);
