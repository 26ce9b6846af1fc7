#pragma once

// The log facade for the strongSwan backend tests: every message at every
// level is kept in memory so tests can look for (or rule out) text in it.

#include "log/DDLog.h"

#include <string>
#include <vector>

namespace logcapture {

struct Entry {
    DDLogFlag flag;
    std::string message;
};

std::vector<std::string> lines();
// The captured messages with the flag each was logged at.
std::vector<Entry> entries();
void clear();
// Whether any captured line contains `text`.
bool contains(const std::string& text);

}  // namespace logcapture
