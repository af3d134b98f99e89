// The store's handling of write faults: a scripted write function injects
// partial writes, interruptions and errors; a small tmpfs gives a real full
// disk where the test may mount one.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <wx/filename.h>

#include "host/Dom.h"
#include "host/Trace.h"
#include "log/LogData.h"
#include "tests/TempFolder.h"

using VEXIL::LogData;

namespace {

// One scripted outcome of a write: an error number, or 0 for a real write
// of at most limit bytes. With nothing scripted, writes are real.
struct Step {
    int error;
    size_t limit;
};
std::deque<Step> g_Steps;
std::vector<int> g_Descriptors;  // the descriptor of every call

ssize_t ScriptedWrite(int fd, const void* bytes, size_t length) {
    g_Descriptors.push_back(fd);
    if (g_Steps.empty()) {
        return ::write(fd, bytes, length);
    }
    const Step step = g_Steps.front();
    g_Steps.pop_front();
    if (step.error != 0) {
        errno = step.error;
        return -1;
    }
    return ::write(fd, bytes, std::min(length, step.limit));
}

std::string Content(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::vector<int> EventNumbers(const NorvCore::CDom& dom) {
    std::vector<int> numbers;
    for (const auto& event : dom.AgentEvents()) {
        numbers.push_back(event.number);
    }
    return numbers;
}

class StoreFaults : public ::testing::Test {
protected:
    void SetUp() override {
        g_Steps.clear();
        g_Descriptors.clear();
        m_Log.SetLogFilePath(m_Temp.Path());
        m_Log.SetWriteFunction(&ScriptedWrite);
        ASSERT_TRUE(m_Log.InitializeLogFile());
        NorvCore::TakeOperatorLogLines();
    }
    std::string Path(const std::string& suffix = "") const {
        return m_Temp.Path() + "/norv_mpnp" + suffix;
    }
    bool Write(const std::string& text) { return m_Log.WriteRawData(text.size(), text.data()); }

    TempFolder m_Temp;
    NorvCore::CDom m_Dom{":memory:"};
    LogData m_Log{m_Dom};
};

TEST_F(StoreFaults, PartialWritesAndInterruptionsStillWriteEverything) {
    EXPECT_TRUE(m_Log.WriteRawData(0, nullptr));
    EXPECT_TRUE(g_Descriptors.empty());
    g_Steps = {{0, 3}, {EINTR, 0}, {0, 4}, {EINTR, 0}, {EINTR, 0}};
    EXPECT_TRUE(Write("0123456789abcdef"));
    EXPECT_EQ("0123456789abcdef", Content(Path()));
    EXPECT_EQ(6u, g_Descriptors.size());
    EXPECT_TRUE(m_Dom.AgentEvents().empty());
}

TEST_F(StoreFaults, OutOfSpaceDeletesTheOldestCopyOncePerProgress) {
    for (const char* copy : {".1", ".2", ".3"}) {
        std::ofstream(Path(copy)) << copy;
    }
    g_Steps = {{ENOSPC, 0}};
    EXPECT_TRUE(Write("line one\r\n"));
    EXPECT_FALSE(wxFileExists(Path(".3")));
    EXPECT_TRUE(wxFileExists(Path(".2")));
    ASSERT_EQ(std::vector<int>{6009}, EventNumbers(m_Dom));
    EXPECT_EQ("", m_Dom.AgentEvents()[0].detail);
    EXPECT_EQ(
        "Warning: Out of space on the log file disk. Trying to make room by deleting old "
        "log files.",
        NorvCore::TakeOperatorLogLines().at(0));

    // The complete write cleared the latch: a new shortage reports again.
    // Progress between two shortages allows a second deletion.
    g_Steps = {{ENOSPC, 0}, {0, 2}, {ENOSPC, 0}};
    EXPECT_TRUE(Write("line two\r\n"));
    EXPECT_FALSE(wxFileExists(Path(".2")) || wxFileExists(Path(".1")));
    EXPECT_EQ((std::vector<int>{6009, 6009}), EventNumbers(m_Dom));
    EXPECT_EQ("line one\r\nline two\r\n", Content(Path()));
}

TEST_F(StoreFaults, SecondShortageWithoutProgressFailsAndClosesTheFile) {
    std::ofstream(Path(".bak")) << "stray";
    for (int attempt = 0; attempt < 2; ++attempt) {
        g_Descriptors.clear();
        g_Steps = {{ENOSPC, 0}, {ENOSPC, 0}};
        EXPECT_FALSE(Write("lost\r\n"));
        // The second attempt meets a closed file, and the latch still holds.
        EXPECT_EQ(attempt > 0, g_Descriptors.at(0) < 0);
        EXPECT_EQ(std::vector<int>{6009}, EventNumbers(m_Dom));
    }
    EXPECT_TRUE(wxFileExists(Path(".bak")));
}

TEST_F(StoreFaults, OtherErrorsAndAFamilyThatCannotBeListedGive6002) {
    g_Steps = {{EINTR, 0}, {EIO, 0}};
    EXPECT_FALSE(Write("lost\r\n"));
    ASSERT_EQ(std::vector<int>{6002}, EventNumbers(m_Dom));
    EXPECT_EQ(Path(), m_Dom.AgentEvents()[0].detail);

    m_Dom.ClearAgentEvents();
    ASSERT_TRUE(m_Log.InitializeLogFile());
    ASSERT_TRUE(wxFileName::Rmdir(m_Temp.Path(), wxPATH_RMDIR_RECURSIVE));
    g_Steps = {{ENOSPC, 0}};
    EXPECT_FALSE(Write("lost\r\n"));
    EXPECT_EQ((std::vector<int>{6009, 6005, 3300, 6002}), EventNumbers(m_Dom));
    EXPECT_EQ("No such file or directory", m_Dom.AgentEvents()[2].detail);
}

// A tmpfs of 16 pages: two old copies of 4 pages each, then writes that need
// the room of one, and then of more than there is.
TEST(StoreDisk, FullTmpfsMakesRoomAndThenFails) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "mounting a small tmpfs needs root";
    }
    TempFolder temp;
    const std::string disk = temp.Path() + "/disk";
    ASSERT_EQ(0, mkdir(disk.c_str(), 0700));
    if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{disk};

    const std::string path = disk + "/norv_mpnp";
    for (const char* copy : {".1", ".2"}) {
        std::ofstream(path + copy) << std::string(16 * 1024, 'c');
    }
    NorvCore::CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(disk);
    ASSERT_TRUE(log.InitializeLogFile());
    const std::string first(36 * 1024, 'a');
    EXPECT_TRUE(log.WriteRawData(first.size(), first.data()));
    EXPECT_FALSE(wxFileExists(path + ".2"));
    EXPECT_TRUE(wxFileExists(path + ".1"));
    EXPECT_EQ(first, Content(path));
    const std::string second(32 * 1024, 'b');
    EXPECT_FALSE(log.WriteRawData(second.size(), second.data()));
    EXPECT_FALSE(wxFileExists(path + ".1"));
    EXPECT_TRUE(wxFileExists(path));
    EXPECT_EQ((std::vector<int>{6009, 6009}), EventNumbers(dom));
}

}  // namespace
