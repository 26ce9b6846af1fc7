#include "tests/unit/platform/strongswan/LogCapture.h"

#include "log/DDLog.h"

#include <mutex>

// Everything enabled, so a secret at any level would be seen.
std::int32_t ddLogLevel = DDLogLevelVerbose;

namespace {

std::mutex& mutex() {
    static std::mutex m;
    return m;
}

std::vector<logcapture::Entry>& store() {
    static std::vector<logcapture::Entry> s;
    return s;
}

}  // namespace

namespace DDLog {

void addTTYLogger() {}

void log(bool, std::int32_t, DDLogFlag flag, int, const char*, const char*, int, const char*,
         std::string_view message) {
    std::lock_guard lock(mutex());
    store().push_back({flag, std::string(message)});
}

void flushLog() {}

}  // namespace DDLog

namespace logcapture {

std::vector<std::string> lines() {
    std::lock_guard lock(mutex());
    std::vector<std::string> out;
    for (const auto& entry : store()) {
        out.push_back(entry.message);
    }
    return out;
}

std::vector<Entry> entries() {
    std::lock_guard lock(mutex());
    return store();
}

void clear() {
    std::lock_guard lock(mutex());
    store().clear();
}

bool contains(const std::string& text) {
    std::lock_guard lock(mutex());
    for (const auto& entry : store()) {
        if (entry.message.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace logcapture
