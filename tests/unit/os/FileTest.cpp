#include "os/File.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace {

class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/os-file-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        folder_ = pattern;
    }
    void TearDown() override {
        for (const std::string& name : names()) ::unlink((folder_ + "/" + name).c_str());
        ::rmdir((folder_ + "/sub").c_str());
        ::rmdir(folder_.c_str());
    }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    std::set<std::string> names() const {
        std::set<std::string> found;
        DIR* dir = ::opendir(folder_.c_str());
        if (!dir) return found;
        while (const dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") found.insert(name);
        }
        ::closedir(dir);
        return found;
    }

    static std::string contents(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    static void put(const std::string& file, const std::string& text) {
        std::ofstream(file, std::ios::binary) << text;
    }

    static mode_t permissions(const std::string& file) {
        struct stat info {};
        EXPECT_EQ(::lstat(file.c_str(), &info), 0);
        return info.st_mode & 07777;
    }

    std::string folder_;
};

TEST_F(FileTest, AtomicWriteCreatesTheFileWithTheBytes) {
    const std::string bytes("a\0b\nc", 5);
    EXPECT_FALSE(os::writeFileAtomically(path("new"), bytes));
    EXPECT_EQ(contents(path("new")), bytes);
    EXPECT_EQ(names(), std::set<std::string>{"new"});
}

TEST_F(FileTest, AtomicWriteReplacesAnExistingFileWhole) {
    put(path("file"), "an older and longer text");
    EXPECT_FALSE(os::writeFileAtomically(path("file"), "new"));
    EXPECT_EQ(contents(path("file")), "new");
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(FileTest, AtomicWriteNarrowsTheModeByTheUmaskUnlessExact) {
    const mode_t saved = ::umask(027);
    const os::WriteFailure loose = os::writeFileAtomically(path("loose"), "x");
    const os::WriteFailure exact = os::writeFileAtomically(path("exact"), "x", {0604, true});
    ::umask(saved);
    EXPECT_FALSE(loose);
    EXPECT_FALSE(exact);
    EXPECT_EQ(permissions(path("loose")), 0640u);
    EXPECT_EQ(permissions(path("exact")), 0604u);
}

TEST_F(FileTest, AtomicWriteReplacesASymbolicLinkInsteadOfFollowingIt) {
    put(path("target"), "kept");
    ASSERT_EQ(::symlink(path("target").c_str(), path("link").c_str()), 0);
    EXPECT_FALSE(os::writeFileAtomically(path("link"), "written"));
    EXPECT_EQ(contents(path("target")), "kept");
    struct stat info {};
    ASSERT_EQ(::lstat(path("link").c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(contents(path("link")), "written");
}

TEST_F(FileTest, AtomicWriteIntoAMissingFolderFailsAtTheFolder) {
    const os::WriteFailure failure = os::writeFileAtomically(path("absent/file"), "x");
    EXPECT_EQ(failure.step, os::WriteFailure::openFolder);
    EXPECT_EQ(failure.number, ENOENT);
}

TEST_F(FileTest, AtomicWriteThatCannotRenameLeavesNoTemporaryFile) {
    ASSERT_EQ(::mkdir(path("sub").c_str(), 0700), 0);
    put(path("sub/inside"), "");
    // A folder that is not empty cannot be replaced by a file.
    const os::WriteFailure failure = os::writeFileAtomically(path("sub"), "x");
    ::unlink(path("sub/inside").c_str());
    EXPECT_EQ(failure.step, os::WriteFailure::write);
    EXPECT_NE(failure.number, 0);
    EXPECT_EQ(names(), std::set<std::string>{"sub"});
}

TEST_F(FileTest, AtomicWriteWhoseTemporaryNameIsTooLongFailsAtTheTemporaryFile) {
    // The name fits a folder entry; the longer temporary name beside it
    // does not.
    const std::string name(250, 'n');
    const os::WriteFailure failure = os::writeFileAtomically(path(name), "x");
    EXPECT_EQ(failure.step, os::WriteFailure::createTemporary);
    EXPECT_EQ(failure.number, ENAMETOOLONG);
    EXPECT_TRUE(names().empty());
}

TEST_F(FileTest, AtomicWriteOfARelativePathUsesTheWorkingFolder) {
    char* saved = ::getcwd(nullptr, 0);
    ASSERT_EQ(::chdir(folder_.c_str()), 0);
    const os::WriteFailure failure = os::writeFileAtomically("relative", "r");
    ASSERT_EQ(::chdir(saved), 0);
    std::free(saved);
    EXPECT_FALSE(failure);
    EXPECT_EQ(contents(path("relative")), "r");
}

TEST_F(FileTest, BoundedReadReadsTheWholeFile) {
    std::string big(200000, 'z');
    big[123456] = '\0';
    put(path("big"), big);
    const os::FileDescriptor fd = os::openForReading(path("big"), os::FinalLink::follow);
    ASSERT_TRUE(fd.valid());
    std::string bytes = "stale";
    EXPECT_EQ(os::readBounded(fd.get(), big.size(), bytes), 0);
    EXPECT_EQ(bytes, big);
}

TEST_F(FileTest, BoundedReadRefusesMoreThanTheLimit) {
    put(path("file"), "12345");
    const os::FileDescriptor fd = os::openForReading(path("file"), os::FinalLink::follow);
    std::string bytes;
    EXPECT_EQ(os::readBounded(fd.get(), 4, bytes), EFBIG);
}

TEST_F(FileTest, BoundedReadRefusesMoreThanTheLimitFromAStreamWithoutASize) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::write(fds[1], "12345", 5), 5);
    ::close(fds[1]);
    std::string bytes;
    EXPECT_EQ(os::readBounded(fds[0], 4, bytes), EFBIG);
    ::close(fds[0]);
}

TEST_F(FileTest, BoundedReadOfAFolderIsAnError) {
    const os::FileDescriptor fd = os::openForReading(folder_, os::FinalLink::follow);
    ASSERT_TRUE(fd.valid());
    std::string bytes;
    EXPECT_EQ(os::readBounded(fd.get(), 100, bytes), EISDIR);
}

TEST_F(FileTest, BoundedReadKeepsReadingTheFileItOpenedWhenThePathIsReplaced) {
    put(path("file"), "first");
    const os::FileDescriptor fd = os::openForReading(path("file"), os::FinalLink::follow);
    ASSERT_TRUE(fd.valid());
    ASSERT_FALSE(os::writeFileAtomically(path("file"), "second"));
    std::string bytes;
    EXPECT_EQ(os::readBounded(fd.get(), 100, bytes), 0);
    EXPECT_EQ(bytes, "first");
}

TEST_F(FileTest, OpeningForReadingFollowsOrRefusesASymbolicLink) {
    put(path("target"), "t");
    ASSERT_EQ(::symlink(path("target").c_str(), path("link").c_str()), 0);
    EXPECT_TRUE(os::openForReading(path("link"), os::FinalLink::follow).valid());
    errno = 0;
    EXPECT_FALSE(os::openForReading(path("link"), os::FinalLink::refuse).valid());
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(FileTest, OpeningAMissingFileSetsErrno) {
    errno = 0;
    EXPECT_FALSE(os::openForReading(path("absent"), os::FinalLink::follow).valid());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, OpeningAFifoDoesNotBlock) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(os::openForReading(path("fifo"), os::FinalLink::follow).valid());
}

TEST_F(FileTest, DescriptorIsClosedWhenItsOwnerGoes) {
    put(path("file"), "");
    int raw = -1;
    {
        const os::FileDescriptor fd = os::openForReading(path("file"), os::FinalLink::follow);
        raw = fd.get();
        ASSERT_GE(raw, 0);
        EXPECT_TRUE(::fcntl(raw, F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(::fcntl(raw, F_GETFD), -1);
}

}  // namespace
