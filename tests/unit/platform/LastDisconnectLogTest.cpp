#include "platform/LastDisconnectLog.h"

#include <gtest/gtest.h>

#ifdef ORVANE_HAVE_ICU
#include <unicode/uregex.h>
#include <unicode/ustring.h>
#endif

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

using platform::fetchLastDisconnectErrorWithLogTool;
using platform::lastDisconnectErrorFromLogOutput;
using platform::lastDisconnectLogArguments;
using platform::SystemClock;

namespace {

const std::string kPredicate =
    "subsystem == \"com.apple.networkextension\" and eventMessage contains \"Last disconnect "
    "error\"";

std::string changedLine(const std::string& from, const std::string& to) {
    return "2024-05-06 13:45:07.123 Df neagent[311:2a1f] [com.apple.networkextension:] "
           "NESMIKEv2VPNSession[Primary Tunnel:Orvane IKEv2:...]: Last disconnect error for "
           "Orvane IKEv2 changed from \"" +
           from + "\" to \"" + to + "\"";
}

SystemClock::time_point at(double secondsSince1970) {
    return SystemClock::time_point(std::chrono::duration_cast<SystemClock::duration>(
        std::chrono::duration<double>(secondsSince1970)));
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

// --- the log tool's arguments ----------------------------------------------

TEST(LastDisconnectLogArguments, AreTheNineArgumentsWithTheStartTimeInWholeSeconds) {
    EXPECT_EQ(lastDisconnectLogArguments(at(1700000000.75)),
              (std::vector<std::string>{"show", "--start", "@1700000000", "--predicate", kPredicate,
                                        "--style", "compact", "--color", "none"}));
}

TEST(LastDisconnectLogArguments, NoStartTimeSearchesFromZero) {
    EXPECT_EQ(lastDisconnectLogArguments(std::nullopt)[2], "@0");
}

TEST(LastDisconnectLogArguments, StartTimeIsTruncatedTowardZero) {
    EXPECT_EQ(lastDisconnectLogArguments(at(1.999))[2], "@1");
    EXPECT_EQ(lastDisconnectLogArguments(at(-1.5))[2], "@-1");
}

TEST(LastDisconnectLogArguments, StartTimeBeyondThe32BitRangeSaturates) {
    EXPECT_EQ(lastDisconnectLogArguments(at(4294967296.0))[2], "@2147483647");
    EXPECT_EQ(lastDisconnectLogArguments(at(-4294967296.0))[2], "@-2147483648");
}

// --- the walk over the output ----------------------------------------------

TEST(LastDisconnectErrorFromLogOutput, LastLineChangedToAuthenticationFailedGivesThatText) {
    const std::string output = "Timestamp               Ty Process[PID:TID]\n" +
                               changedLine("none", "peer not responding") + "\n" +
                               changedLine("none", "authentication failed") + "\n";
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(output), "authentication failed");
}

TEST(LastDisconnectErrorFromLogOutput, LastMatchingLineSayingNoneGivesEmptyDespiteEarlierReason) {
    const std::string output = changedLine("none", "authentication failed") + "\n" +
                               changedLine("authentication failed", "none") + "\n";
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(output), "");
}

TEST(LastDisconnectErrorFromLogOutput, TrailingLineFeedStillFindsTheLineBefore) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "server dead") + "\n\n\n"),
              "server dead");
}

TEST(LastDisconnectErrorFromLogOutput, LinesThatDoNotMatchAreWalkedPast) {
    const std::string output = changedLine("none", "negotiation failed") +
                               "\nsomething else\nchanged from \"x\" without a new value\n";
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(output), "negotiation failed");
}

TEST(LastDisconnectErrorFromLogOutput, FirstLineWithoutLineFeedIsFound) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "overslept")), "overslept");
}

TEST(LastDisconnectErrorFromLogOutput, NoOutputOrNoMatchGivesEmpty) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(""), "");
    EXPECT_EQ(lastDisconnectErrorFromLogOutput("\n"), "");
    EXPECT_EQ(lastDisconnectErrorFromLogOutput("Timestamp Ty Process\nno entries\n"), "");
}

TEST(LastDisconnectErrorFromLogOutput, EmptyNewValueGivesEmpty) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("a", "")), "");
}

TEST(LastDisconnectErrorFromLogOutput, ValueIsTakenGreedilyUpToTheLastQuote) {
    // The first group is greedy too: it reaches the last " to " it can.
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(R"(changed from "none" to "x" to "y")"), "y");
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(R"(changed from "a" to "say "hi"" (code 8))"),
              R"(say "hi")");
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(R"(x changed from "a" to "b" y "c" z)"),
              R"(b" y "c)");
}

TEST(LastDisconnectErrorFromLogOutput, ValueIsCaseSensitiveNone) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("a", "None")), "None");
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("a", "none ")), "none ");
}

TEST(LastDisconnectErrorFromLogOutput, CarriageReturnAfterTheValueStillMatches) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "server dead") + "\r\n"),
              "server dead");
}

TEST(LastDisconnectErrorFromLogOutput, ValueSpanningALineTerminatorDoesNotMatch) {
    const std::string earlier = changedLine("none", "authentication failed") + "\n";
    for (const std::string terminator : {"\r", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
        EXPECT_EQ(
            lastDisconnectErrorFromLogOutput(earlier + changedLine("a", "b" + terminator + "c")),
            "authentication failed")
            << "terminator bytes: " << terminator.size();
    }
}

TEST(LastDisconnectErrorFromLogOutput, NonAsciiValueIsKeptWhole) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "Zeitüberschreitung 🎉")),
              "Zeitüberschreitung 🎉");
}

TEST(LastDisconnectErrorFromLogOutput, OutputThatIsNotUtf8GivesEmpty) {
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "server dead") + "\n\xff\n"),
              "");
    // A surrogate half encoded on its own is not UTF-8 either.
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", "a\xed\xa0\x80")), "");
}

TEST(LastDisconnectErrorFromLogOutput, NulInsideTheValueIsKept) {
    const std::string value("a\0b", 3);
    EXPECT_EQ(lastDisconnectErrorFromLogOutput(changedLine("none", value)), value);
}

// --- running the log tool ----------------------------------------------------

class LastDisconnectLogTool : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/orvane-logtool-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // A stand-in for the system's log tool: records its arguments (one per
    // NUL-terminated entry), prints the file "stdout" and, to standard
    // error, the file "stderr", and exits with `status`.
    std::string writeTool(int status = 0) {
        const std::filesystem::path tool = dir_ / "log";
        std::ofstream(tool) << "#!/bin/sh\n"
                            << "for a in \"$@\"; do printf '%s\\0' \"$a\"; done > '"
                            << (dir_ / "arguments").string() << "'\n"
                            << "cat '" << (dir_ / "stdout").string() << "'\n"
                            << "cat '" << (dir_ / "stderr").string() << "' >&2\n"
                            << "exit " << status << "\n";
        std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
        setOutput("", "");
        return tool.string();
    }
    void setOutput(const std::string& out, const std::string& err) {
        std::ofstream(dir_ / "stdout", std::ios::binary) << out;
        std::ofstream(dir_ / "stderr", std::ios::binary) << err;
    }
    std::vector<std::string> recordedArguments() const {
        const std::string bytes = readFile(dir_ / "arguments");
        std::vector<std::string> arguments;
        for (std::size_t start = 0; start < bytes.size();) {
            const std::size_t end = bytes.find('\0', start);
            arguments.push_back(bytes.substr(start, end - start));
            start = end + 1;
        }
        return arguments;
    }

    std::filesystem::path dir_;
};

TEST_F(LastDisconnectLogTool, RunsTheToolWithTheNineArgumentsAndReadsItsOutput) {
    const std::string tool = writeTool();
    setOutput(changedLine("none", "authentication failed") + "\n", "");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool(tool, at(1700000123.5)), "authentication failed");
    EXPECT_EQ(recordedArguments(), lastDisconnectLogArguments(at(1700000123.5)));
}

TEST_F(LastDisconnectLogTool, NoLogToolGivesEmptyAndStartsNothing) {
    writeTool();
    setOutput(changedLine("none", "authentication failed"), "");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool((dir_ / "missing").string(), std::nullopt), "");
    std::filesystem::create_symlink(dir_ / "gone", dir_ / "dangling");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool((dir_ / "dangling").string(), std::nullopt), "");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "arguments"));
}

TEST_F(LastDisconnectLogTool, ToolThatCannotBeStartedGivesEmpty) {
    const std::string tool = writeTool();
    std::filesystem::permissions(tool, std::filesystem::perms::owner_read);
    setOutput(changedLine("none", "authentication failed"), "");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool(tool, std::nullopt), "");
}

TEST_F(LastDisconnectLogTool, ExitStatusOfTheToolIsNotLookedAt) {
    const std::string tool = writeTool(3);
    setOutput(changedLine("none", "server dead"), "");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool(tool, std::nullopt), "server dead");
}

TEST_F(LastDisconnectLogTool, ToolPrintingNothingGivesEmpty) {
    const std::string tool = writeTool(1);
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool(tool, std::nullopt), "");
}

TEST_F(LastDisconnectLogTool, StandardErrorIsNotRead) {
    const std::string tool = writeTool();
    // The test's own standard error receives the line; silence it.
    setOutput("", changedLine("none", "authentication failed") + "\n");
    testing::internal::CaptureStderr();
    const std::string reason = fetchLastDisconnectErrorWithLogTool(tool, std::nullopt);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(reason, "");
    EXPECT_NE(err.find("authentication failed"), std::string::npos);
}

TEST_F(LastDisconnectLogTool, OutputLargerThanAPipeHoldsIsReadToTheEnd) {
    const std::string tool = writeTool();
    std::string out;
    const std::string filler = changedLine("none", "older reason") + "\n";
    while (out.size() < 4 * 1024 * 1024) {
        out += filler;
    }
    setOutput(out + changedLine("none", "the last one") + "\n", "");
    EXPECT_EQ(fetchLastDisconnectErrorWithLogTool(tool, std::nullopt), "the last one");
}

// --- the same answers as the system's regular expressions --------------------

#ifdef ORVANE_HAVE_ICU
namespace {

// Group 2 of the first match that ICU, the engine under the system's
// regular expressions, finds for the pattern as the system is given it (no
// options); none when it finds no match.
std::optional<std::string> icuValue(const std::string& line) {
    UErrorCode status = U_ZERO_ERROR;
    URegularExpression* regex =
        uregex_openC(R"re(changed from "(.*)" to "(.*)")re", 0, nullptr, &status);
    EXPECT_TRUE(U_SUCCESS(status));
    std::u16string text(line.size(), u'\0');
    int32_t length = 0;
    u_strFromUTF8(text.data(), static_cast<int32_t>(text.size()), &length, line.data(),
                  static_cast<int32_t>(line.size()), &status);
    text.resize(static_cast<std::size_t>(length));
    uregex_setText(regex, text.data(), length, &status);
    std::optional<std::string> value;
    if (uregex_find(regex, 0, &status)) {
        std::u16string group(text.size(), u'\0');
        const int32_t groupLength =
            uregex_group(regex, 2, group.data(), static_cast<int32_t>(group.size()), &status);
        std::string bytes(static_cast<std::size_t>(groupLength) * 3, '\0');
        int32_t written = 0;
        u_strToUTF8(bytes.data(), static_cast<int32_t>(bytes.size()), &written, group.data(),
                    groupLength, &status);
        bytes.resize(static_cast<std::size_t>(written));
        value = bytes;
    }
    EXPECT_TRUE(U_SUCCESS(status)) << u_errorName(status);
    uregex_close(regex);
    return value;
}

std::string expectedReason(const std::string& line) {
    const std::optional<std::string> value = icuValue(line);
    return !value || *value == "none" ? "" : *value;
}

}  // namespace

TEST(LastDisconnectErrorFromLogOutput, AgreesWithIcuOnTrickyLines) {
    const std::vector<std::string> lines = {
        R"(changed from "none" to "authentication failed")",
        R"(changed from "none" to "x" to "y")",
        R"(changed from "a" to "say "hi"" (code 8))",
        R"(changed from "" to "")",
        R"(changed from "a" to "b" changed from "c" to "d")",
        R"(changed from "a"to "b")",
        R"(Changed from "a" to "b")",
        "changed from \"a\r\" to \"b\"",
        "changed from \"a\" to \"b\r\"",
        "changed from \"a\" to \"b\"\r",
        "changed from \"a\u2028\" to \"b\" changed from \"c\" to \"d\"",
        "changed from \"a\" to \"b\u0085c\" to \"d\"",
        "changed from \"\U0001F389\" to \"\U0001F389\"",
        "changed from \"a\" to \"b" + std::string(1, '\0') + "c\"",
    };
    for (const std::string& line : lines) {
        EXPECT_EQ(lastDisconnectErrorFromLogOutput(line), expectedReason(line)) << line;
    }
}

TEST(LastDisconnectErrorFromLogOutput, AgreesWithIcuOnGeneratedLines) {
    // Lines built around the pattern's skeleton, with quotes, the words of
    // the pattern and line terminators thrown in between.
    const std::vector<std::string> pieces = {"\"",
                                             " to ",
                                             "to",
                                             "none",
                                             "a",
                                             " ",
                                             "\r",
                                             "\v",
                                             "\f",
                                             "\u0085",
                                             "\u2028",
                                             "\u2029",
                                             "\t",
                                             "\u00e9",
                                             "\U0001F389",
                                             "\"\"",
                                             "changed from \"",
                                             "\" to \""};
    const std::vector<std::string> skeleton = {"changed from \"", "\" to \"", "\""};
    std::mt19937 random(20240506);
    std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
    std::uniform_int_distribution<int> count(0, 4);
    const auto junk = [&] {
        std::string text;
        for (int n = count(random); n > 0; --n) {
            text += pieces[pick(random)];
        }
        return text;
    };
    int matched = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string line = junk();
        for (const std::string& part : skeleton) {
            line += part + junk();
        }
        matched += icuValue(line).has_value();
        ASSERT_EQ(lastDisconnectErrorFromLogOutput(line), expectedReason(line)) << line;
    }
    // Both outcomes must be common for the comparison to mean something.
    EXPECT_GT(matched, 2000);
    EXPECT_LT(matched, 18000);
}
#endif
