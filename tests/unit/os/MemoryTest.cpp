#include "os/Memory.h"
#include "tests/unit/double/ChildProcess.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <string>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

TEST(MemoryTest, WipeMemoryZerosEveryByte) {
    std::array<unsigned char, 333> bytes;
    bytes.fill(0xa5);
    os::wipeMemory(bytes.data(), bytes.size());
    EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; }));
    os::wipeMemory(nullptr, 0);
}

TEST(MemoryTest, WipeStringZerosTheWholeBufferAndEmptiesIt) {
    std::string text = "a secret long enough to live on the heap";
    text = "short";
    os::wipeString(text);
    EXPECT_TRUE(text.empty());
    text.resize(text.capacity());
    EXPECT_EQ(text, std::string(text.size(), '\0'));
}

TEST(MemoryTest, DenyingMemoryInspectionKeepsCoresAndSameUserReadersOut) {
    const auto child = testing_support::runInChild([] {
        if (!os::denyMemoryInspection()) {
            std::_Exit(3);
        }
#if defined(__linux__)
        std::_Exit(::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) == 0 ? 0 : 4);
#else
        struct rlimit limit {};
        std::_Exit(::getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_cur == 0 &&
                           limit.rlim_max == 0
                       ? 0
                       : 4);
#endif
    });
    EXPECT_EQ(child.exitStatus, 0);
}
