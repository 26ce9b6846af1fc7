#pragma once

// The log facade for the strongSwan backend tests: every message at every
// level is kept in memory so tests can look for (or rule out) text in it.

#include <string>
#include <vector>

namespace logcapture {

std::vector<std::string> lines();
void clear();
// Whether any captured line contains `text`.
bool contains(const std::string& text);

}  // namespace logcapture
