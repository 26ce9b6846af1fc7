#include "os/Pipe.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

class PipeTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(os::openWakePipe(fds_)); }
    void TearDown() override {
        ::close(fds_[0]);
        ::close(fds_[1]);
    }
    int fds_[2] = {-1, -1};
};

TEST_F(PipeTest, BothEndsAreCloseOnExec) {
    for (int fd : fds_) {
        EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
    }
}

TEST_F(PipeTest, ReadingAnEmptyPipeReturnsAtOnce) {
    char byte = 0;
    EXPECT_EQ(::read(fds_[0], &byte, 1), -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
}

TEST_F(PipeTest, WritingToAFullPipeFailsInsteadOfBlocking) {
    const char byte = 'x';
    ssize_t written = 0;
    do {
        written = ::write(fds_[1], &byte, 1);
    } while (written == 1);
    EXPECT_EQ(written, -1);
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);
}

TEST_F(PipeTest, WhatIsWrittenIsRead) {
    const char sent[] = {2, 15};
    ASSERT_EQ(::write(fds_[1], sent, sizeof sent), 2);
    char received[4] = {};
    ASSERT_EQ(::read(fds_[0], received, sizeof received), 2);
    EXPECT_EQ(received[0], 2);
    EXPECT_EQ(received[1], 15);
}

}  // namespace
