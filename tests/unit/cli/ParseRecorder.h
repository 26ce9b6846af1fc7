#pragma once

// A parse block that records every event it receives, for the parser tests.

#include "cli/GBCommandLineParser.h"

#include <optional>
#include <string>
#include <vector>

namespace cli::test {

struct Event {
    GBParseFlags flags;
    std::optional<std::string> option;
    Value value;
};

// A block that records every event, and optionally stops at one of them.
struct Recorder {
    std::vector<Event> events;
    int stopAt = -1;

    GBParseBlock block() {
        return [this](GBParseFlags flags, const std::optional<std::string>& option,
                      const Value& value, bool* stop) {
            events.push_back({flags, option, value});
            if (static_cast<int>(events.size()) - 1 == stopAt) *stop = true;
        };
    }
};

using Args = std::vector<std::string>;

inline std::vector<std::string> texts(const Value& array) {
    std::vector<std::string> out;
    for (const auto& element : array.elements()) out.push_back(element.description());
    return out;
}

}  // namespace cli::test
