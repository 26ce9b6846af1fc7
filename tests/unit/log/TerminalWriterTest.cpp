#include "log/TerminalWriter.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>

using namespace std::chrono_literals;

namespace {

// A pipe of the smallest capacity, its write end filled to the brim.
class FullPipe {
  public:
    FullPipe() {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe2(fds_, O_CLOEXEC), 0);
        ::fcntl(fds_[1], F_SETPIPE_SZ, 4096);
        const int flags = ::fcntl(fds_[1], F_GETFL);
        ::fcntl(fds_[1], F_SETFL, flags | O_NONBLOCK);
        const std::string filler(512, '.');
        while (::write(fds_[1], filler.data(), filler.size()) > 0) {
            filled_ += filler.size();
        }
        // The writer under test gets a blocking descriptor, as a controller
        // hands it over.
        ::fcntl(fds_[1], F_SETFL, flags);
    }
    ~FullPipe() {
        closeReader();
        ::close(fds_[1]);
    }
    int writeEnd() const { return fds_[1]; }
    void closeReader() {
        if (fds_[0] >= 0) {
            ::close(fds_[0]);
            fds_[0] = -1;
        }
    }
    // Everything that is in the pipe now, without the filler.
    std::string drain() {
        const int flags = ::fcntl(fds_[0], F_GETFL);
        ::fcntl(fds_[0], F_SETFL, flags | O_NONBLOCK);
        std::string text;
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::read(fds_[0], buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
        ::fcntl(fds_[0], F_SETFL, flags);
        const std::size_t skip = std::min(filled_, text.size());
        filled_ -= skip;
        return text.substr(skip);
    }

  private:
    int fds_[2] = {-1, -1};
    std::size_t filled_ = 0;
};

}  // namespace

TEST(TerminalWriterTest, LinesAReaderDoesNotTakeWaitWithoutBlockingAndFollowInOrder) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Connecting\n");
    writer.write("IKEv2 Connected\n");
    EXPECT_FALSE(writer.writePending()) << "still waiting for the reader";

    std::string got = pipe.drain();
    EXPECT_TRUE(writer.writePending());
    got += pipe.drain();
    EXPECT_EQ(got, "IKEv2 Connecting\nIKEv2 Connected\n");
}

TEST(TerminalWriterTest, NextLineTakesWhatWaitedAlongInOrder) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Connecting\n");
    std::string got = pipe.drain();
    writer.write("IKEv2 Connected\n");
    got += pipe.drain();
    EXPECT_EQ(got, "IKEv2 Connecting\nIKEv2 Connected\n");
    EXPECT_TRUE(writer.writePending());
}

TEST(TerminalWriterTest, ReaderGoneIsReportedOnceAndLaterLinesAreDropped) {
    FullPipe pipe;
    pipe.drain();
    pipe.closeReader();
    TerminalWriter writer(pipe.writeEnd());
    int gone = 0;
    writer.setReaderGoneHandler([&] { ++gone; });
    writer.write("IKEv2 Connected\n");
    writer.write("IKEv2 Disconnected\n");
    EXPECT_EQ(gone, 1);
    EXPECT_TRUE(writer.readerGone());
    EXPECT_TRUE(writer.writePending());
}

TEST(TerminalWriterTest, HandlerSetAfterTheReaderWentIsCalledAtOnce) {
    FullPipe pipe;
    pipe.closeReader();
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Connected\n");
    int gone = 0;
    writer.setReaderGoneHandler([&] { ++gone; });
    EXPECT_EQ(gone, 1);
}

TEST(TerminalWriterTest, FlushGivesUpWhenNobodyReads) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Disconnected\n");
    // How soon after its limit it returns is measured in bench/loop.
    writer.flush(100ms);
    EXPECT_FALSE(writer.writePending());
}

TEST(TerminalWriterTest, FlushWaitsItsWholeLimitForAReaderThatReadsNothing) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Disconnected\n");
    const auto start = std::chrono::steady_clock::now();
    writer.flush(20ms);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(TerminalWriterTest, FlushWritesWhatWaitsOnceTheReaderReads) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    writer.write("IKEv2 Disconnected\n");
    std::string got = pipe.drain();
    writer.flush(1s);
    got += pipe.drain();
    EXPECT_EQ(got, "IKEv2 Disconnected\n");
}

TEST(TerminalWriterTest, WhatWaitsIsBounded) {
    FullPipe pipe;
    TerminalWriter writer(pipe.writeEnd());
    const std::string line(1000, 'x');
    for (std::size_t i = 0; i < 2 * TerminalWriter::kPendingLimit / line.size(); ++i) {
        writer.write(line);
    }
    std::string got;
    for (int i = 0; i < 4000 && !writer.writePending(); ++i) {
        got += pipe.drain();
    }
    got += pipe.drain();
    EXPECT_LE(got.size(), TerminalWriter::kPendingLimit);
    EXPECT_GE(got.size(), TerminalWriter::kPendingLimit - line.size());
}
