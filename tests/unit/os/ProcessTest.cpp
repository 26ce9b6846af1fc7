#include "os/Process.h"

#include "tests/unit/double/ChildProcess.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

namespace {

struct ProbeReport {
    std::string programName;
    std::vector<std::string> arguments;
};

// Runs the probe with exactly `argv` (argv[0] included) and reads back what
// it reported.
ProbeReport runProbe(const std::vector<std::string>& argv) {
    const testing_support::ChildResult child = testing_support::runInChild([&argv] {
        std::vector<char*> pointers;
        for (const std::string& argument : argv)
            pointers.push_back(const_cast<char*>(argument.c_str()));
        pointers.push_back(nullptr);
        ::execv(ORVANE_PROCESS_PROBE, pointers.data());
        std::_Exit(127);
    });
    EXPECT_EQ(child.exitStatus, 0) << child.err;
    ProbeReport report;
    const std::size_t newline = child.out.find('\n');
    if (newline == std::string::npos) return report;
    report.programName = child.out.substr(0, newline);
    std::size_t start = newline + 1;
    while (start < child.out.size()) {
        const std::size_t end = child.out.find('\0', start);
        if (end == std::string::npos) break;
        report.arguments.push_back(child.out.substr(start, end - start));
        start = end + 1;
    }
    return report;
}

TEST(ProcessTest, ProgramNameIsTheLastPathComponentOfArgvZero) {
    EXPECT_EQ(runProbe({"/no/such/folder/renamed-tool"}).programName, "renamed-tool");
    EXPECT_EQ(runProbe({"plain-name", "x"}).programName, "plain-name");
}

TEST(ProcessTest, ProgramNameOfThisProcess) {
    EXPECT_EQ(os::programName(), "os_tests");
}

TEST(ProcessTest, ArgumentsAreThoseOfTheStartIncludingArgvZero) {
    const std::vector<std::string> argv{"/some/where/probe", "--config", "file name.conf", "-c"};
    EXPECT_EQ(runProbe(argv).arguments, argv);
}

TEST(ProcessTest, EmptyArgumentsAreKept) {
    const std::vector<std::string> argv{"probe", "", "a", ""};
    EXPECT_EQ(runProbe(argv).arguments, argv);
}

TEST(ProcessTest, ArgumentBytesArePassedRawWhateverTheirEncoding) {
    const std::vector<std::string> argv{"probe", "caf\xC3\xA9", "\xFF\xFE not UTF-8",
                                        "line\nbreak\ttab"};
    EXPECT_EQ(runProbe(argv).arguments, argv);
}

TEST(ProcessTest, ArgumentsOfThisProcessStartWithItsProgram) {
    const std::vector<std::string> arguments = os::processArguments();
    ASSERT_FALSE(arguments.empty());
    EXPECT_NE(arguments.front().find("os_tests"), std::string::npos);
}

}  // namespace
