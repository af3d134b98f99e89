// The log object's frame: settings read at construction, file names, opening
// the log file and listing the family.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <wx/filename.h>

#include "host/Dom.h"
#include "host/Trace.h"
#include "log/LogData.h"
#include "tests/TempFolder.h"

using NorvCore::CDom;
using VEXIL::LogData;

namespace {

int ModeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? int(info.st_mode & 0777) : -1;
}

std::vector<int> EventNumbers(const CDom& dom) {
    std::vector<int> numbers;
    for (const auto& event : dom.AgentEvents()) {
        numbers.push_back(event.number);
    }
    return numbers;
}

TEST(LogDataSettings, DefaultsWithNoSettings) {
    CDom dom(":memory:");
    LogData log(dom);
    EXPECT_DOUBLE_EQ(0.25, log.GetScanRatioCleanBin());
    EXPECT_EQ(4.000000000000001, log.GetScanRatioSuspectBin());
    EXPECT_EQ(10000u, log.GetTimeBinMsec());
    EXPECT_EQ(300000u, log.GetScanningIpsRetentionMsec());
    EXPECT_TRUE(log.GetIgnoreTcpFlags().empty());
    EXPECT_EQ(1024, log.GetLogFileSizeKB());
    EXPECT_EQ(7, log.GetNumberOfOldCopies());
    EXPECT_EQ("norv_mpnp", log.GetLogFileName());
    EXPECT_EQ("/var/lib/norv/Logfiles/norv_agent", log.GetLogFilePath());
    EXPECT_EQ("/var/lib/norv/Logfiles/norv_agent/norv_mpnp", log.GetLogFileFullPath());
}

TEST(LogDataSettings, ProbabilitiesAndTimesAreParsed) {
    CDom dom(":memory:");
    dom.Set("norvp.vexil.analysis.ScanPrY0H0", std::string("0.5"));
    dom.Set("norvp.vexil.analysis.ScanPrY0H1", std::string("0.25"));
    dom.Set("norvp.vexil.analysis.ScanTimeBinMillisec", std::string("2500"));
    dom.Set("norvp.vexil.analysis.ScanningIpsRetentionMsec", std::string("not a number"));
    LogData log(dom);
    EXPECT_DOUBLE_EQ(0.5, log.GetScanRatioCleanBin());
    EXPECT_DOUBLE_EQ(1.5, log.GetScanRatioSuspectBin());
    EXPECT_EQ(2500u, log.GetTimeBinMsec());
    // A setting that does not parse leaves the default.
    EXPECT_EQ(300000u, log.GetScanningIpsRetentionMsec());
}

TEST(LogDataSettings, IgnoreTcpFlagsTokensAndRange) {
    CDom dom(":memory:");
    dom.Set("norvp.vexil.analysis.IgnoreTcpFlags", std::string("2, 0x12;18\t\t022 x17 256 -1"));
    NorvCore::TakeOperatorLogLines();
    LogData log(dom);
    EXPECT_EQ((std::set<u8>{2, 18}), log.GetIgnoreTcpFlags());
    auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos,
              lines[0].find("IgnoreTcpFlags value 256 is out of range - ignoring it."));
    EXPECT_NE(std::string::npos,
              lines[1].find("IgnoreTcpFlags value -1 is out of range - ignoring it."));
}

TEST(LogDataSettings, IgnoreTcpFlagsBeyondThirtyTwoBitsAreOutOfRange) {
    // Values that would wrap into a flag byte when cut to 32 bits.
    CDom dom(":memory:");
    dom.Set("norvp.vexil.analysis.IgnoreTcpFlags",
            std::string("4294967296 -4294967295 0x100000012"));
    NorvCore::TakeOperatorLogLines();
    LogData log(dom);
    EXPECT_TRUE(log.GetIgnoreTcpFlags().empty());
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("Warning: IgnoreTcpFlags value 4294967296 is out of range - ignoring it.", lines[0]);
    EXPECT_EQ("Warning: IgnoreTcpFlags value -4294967295 is out of range - ignoring it.", lines[1]);
    EXPECT_EQ("Warning: IgnoreTcpFlags value 4294967314 is out of range - ignoring it.", lines[2]);
}

TEST(LogDataSettings, BadBaseFolderLeavesNamesEmpty) {
    CDom dom(":memory:");
    dom.Set("norv.baseFolder", std::string("relative/folder"));
    NorvCore::TakeOperatorLogLines();
    LogData log(dom);
    EXPECT_EQ("", log.GetLogFilePath());
    EXPECT_EQ("", log.GetLogFileName());
    EXPECT_EQ("", log.GetLogFileFullPath());
    auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos,
              lines[0].find("CLoggerThread(): Error 0x16 from SHGetFolderPath() getting System "
                            "folder."));
    // Opening then fails with the event for the (empty) full path, and
    // nothing else is tried on the disk.
    EXPECT_FALSE(log.InitializeLogFile());
    EXPECT_EQ(std::vector<int>{6001}, EventNumbers(dom));
    EXPECT_EQ(std::vector<std::string>{"Warning: Agent event 6001: "},
              NorvCore::TakeOperatorLogLines());
}

TEST(LogDataNames, PathAndNameInEitherOrder) {
    CDom dom(":memory:");
    LogData first(dom);
    first.SetLogFilePath("/a/b");
    first.SetLogFileName("c.log");
    LogData second(dom);
    second.SetLogFileName("c.log");
    second.SetLogFilePath("/a/b");
    EXPECT_EQ("/a/b/c.log", first.GetLogFileFullPath());
    EXPECT_EQ(first.GetLogFileFullPath(), second.GetLogFileFullPath());
}

TEST(LogDataFile, OpensNewFileOwnerOnlyInNewFolder) {
    TempFolder temp;
    CDom dom(":memory:");
    LogData log(dom);
    const std::string folder = temp.Path() + "/deep/logs";
    log.SetLogFilePath(folder);
    ASSERT_TRUE(log.InitializeLogFile());
    EXPECT_EQ(0700, ModeOf(folder));
    EXPECT_EQ(0600, ModeOf(folder + "/norv_mpnp"));
    EXPECT_TRUE(dom.AgentEvents().empty());

    // An open file answers at once, even if the disk has changed beneath it.
    std::remove((folder + "/norv_mpnp").c_str());
    EXPECT_TRUE(log.InitializeLogFile());
    EXPECT_EQ(-1, ModeOf(folder + "/norv_mpnp"));
}

TEST(LogDataFile, FolderThatCannotBeMadeGivesEvent6003) {
    TempFolder temp;
    std::ofstream(temp.Path() + "/plain") << "x";
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path() + "/plain/sub");
    NorvCore::TakeOperatorLogLines();
    EXPECT_FALSE(log.InitializeLogFile());
    ASSERT_EQ(std::vector<int>{6003}, EventNumbers(dom));
    EXPECT_EQ(temp.Path() + "/plain/sub", dom.AgentEvents()[0].detail);
    // The event reaches the operator log as every event does; the toolkit's
    // own error line does not.
    EXPECT_EQ(std::vector<std::string>{"Warning: Agent event 6003: " + temp.Path() + "/plain/sub"},
              NorvCore::TakeOperatorLogLines());
}

TEST(LogDataFile, FileThatCannotBeOpenedGivesEvent6001) {
    TempFolder temp;
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path());
    log.SetLogFileName("adir");
    wxFileName::Mkdir(temp.Path() + "/adir");
    NorvCore::TakeOperatorLogLines();
    EXPECT_FALSE(log.InitializeLogFile());
    ASSERT_EQ(std::vector<int>{6001}, EventNumbers(dom));
    EXPECT_EQ(temp.Path() + "/adir", dom.AgentEvents()[0].detail);
    EXPECT_EQ(std::vector<std::string>{"Warning: Agent event 6001: " + temp.Path() + "/adir"},
              NorvCore::TakeOperatorLogLines());
}

TEST(LogDataFile, ExistingFileKeepsItsModeAndContent) {
    TempFolder temp;
    const std::string path = temp.Path() + "/norv_mpnp";
    std::ofstream(path) << "old line\r\n";
    chmod(path.c_str(), 0644);
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path());
    ASSERT_TRUE(log.InitializeLogFile());
    EXPECT_EQ(0644, ModeOf(path));
}

TEST(LogDataFamily, SortsByNumberLiveFileFirst) {
    TempFolder temp;
    for (const char* name : {"norv_mpnp.10", "norv_mpnp.9", "norv_mpnp", "norv_mpnp.1",
                             "norv_mpnp.bak", "norv_mpnp.-3", "other", "norv_mpnp.2"}) {
        std::ofstream(temp.Path() + "/" + name) << "x";
    }
    wxFileName::Mkdir(temp.Path() + "/norv_mpnp.dir");
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path());
    wxArrayString files;
    ASSERT_EQ(7u, log.ListLogFiles("norv_mpnp", files));
    std::vector<std::string> names;
    for (const wxString& file : files) {
        names.push_back(wxFileName(file).GetFullName().ToStdString());
    }
    // The live file and the stray copies (no digits first) all count as number 0.
    EXPECT_EQ((std::vector<std::string>{"norv_mpnp", "norv_mpnp.-3", "norv_mpnp.bak", "norv_mpnp.1",
                                        "norv_mpnp.2", "norv_mpnp.9", "norv_mpnp.10"}),
              names);
}

TEST(LogDataFamily, MissingFolderGivesEvent6005) {
    TempFolder temp;
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path() + "/missing");
    wxArrayString files;
    files.Add("stale");
    EXPECT_EQ(size_t(-1), log.ListLogFiles("norv_mpnp", files));
    EXPECT_TRUE(files.IsEmpty());
    ASSERT_EQ(std::vector<int>{6005}, EventNumbers(dom));
    EXPECT_EQ(temp.Path() + "/missing|No such file or directory", dom.AgentEvents()[0].detail);
}

}  // namespace
