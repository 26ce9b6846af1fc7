#pragma once

// Runs a function with the process's standard output sent to a temporary
// file and answers the bytes it wrote, so output can be compared exactly.

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

namespace cli::test {

inline std::string captureStdout(const std::function<void()>& body) {
    std::fflush(stdout);
    std::FILE* sink = std::tmpfile();
    if (!sink) return "<tmpfile failed>";
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(sink), STDOUT_FILENO);
    body();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string bytes;
    std::rewind(sink);
    char buffer[4096];
    std::size_t read = 0;
    while ((read = std::fread(buffer, 1, sizeof buffer, sink)) > 0) bytes.append(buffer, read);
    std::fclose(sink);
    return bytes;
}

}  // namespace cli::test
