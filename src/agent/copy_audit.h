// The copy audit record: one FilesCopy document per copy or move that is let through, sent to
// the agent without a reply. Shared by the three interceptor families.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "agent/agent_frame.h"

constexpr int kCopyAuditCopy = 6;
constexpr int kCopyAuditMove = 5;

// FilesCopy with attributes processname, operation, flags (0), time (tick_count written as a
// signed 32-bit value), dstfloder, usersid, in that order; then one File (attribute filename)
// per file in order. The caller lists the files (folders among the sources already expanded:
// the agent layer knows nothing of the file system). Compact UTF-8, no declaration.
std::string build_copy_audit_document(const std::string& process_name, const std::string& user_sid, int operation,
                                      const std::string& destination_utf8, const std::vector<std::string>& files_utf8,
                                      uint32_t tick_count);
// The same with the calling process's name and user SID.
std::string build_copy_audit_document(int operation, const std::string& destination_utf8,
                                      const std::vector<std::string>& files_utf8, uint32_t tick_count);

// Sends `xml_text` with the record tag over `io`; 1 when every chunk was sent and every
// acknowledgement arrived, else 0.
int send_copy_audit_over(agent::DatagramIo& io, const agent::DatagramAddress& destination, const std::string& xml_text);
// Sends a serialised record to the agent on a new socket with a 1000 ms acknowledgement
// time-out; 1 on success, else 0. Relies on the library-wide WSAStartup.
int SendCopyAudit(const std::string& xml_text);

// Builds the record of `files_utf8` for this process, user and the current GetTickCount, and
// sends it; the result of SendCopyAudit.
int send_copy_audit_record(int operation, const std::string& destination_utf8,
                           const std::vector<std::string>& files_utf8);
