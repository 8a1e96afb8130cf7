// A message received by the agent: what it says (tag, process, files, destinations) and how it is
// reported, as one JSON line and as a readable summary.
#pragma once
#include <string>
#include <vector>

#include <tinyxml2.h>

#include "rules.h"

struct Message {
  std::string tag;
  tinyxml2::XMLDocument document;
  const tinyxml2::XMLElement* root = nullptr;
  bool is_request = false, is_audit = false, is_result = false;
  std::vector<std::string> files;
  std::vector<std::string> destinations;
  std::string error;  // why the text did not parse, or "unknown tag"
};

// Reads a complete frame (header and text) into *m.
void parse_message(const std::string& frame, Message* m);

// The JSON line of a message: tag, processname, operation, destination, usersid, files, answer,
// then per kind destinations, time and flags, or action; error; from_port.
std::string json_line(const Message& m, const Answer& answer, unsigned from_port);
// The same for a datagram that does not start a frame.
std::string json_not_a_frame(int bytes, unsigned from_port);

// The readable summary of a message, stamped with the local time, one or more lines.
std::string summary(const Message& m, const Answer& answer);
