// The log object seen from C++: settings read at construction, file names,
// listing the family, the read-back without a sink and its byte scan, the
// script entry SetNorvi seen from both sides, the store's handling of write
// faults, and the rendering of crafted records. Opening the file, and the
// words of single fields, are covered by the Lua specs.
#include <arpa/inet.h>
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

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "host/Trace.h"
#include "host/slb/SLB.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"
#include "log/RecordCopy.h"
#include "tests/TempFolder.h"

using NorvCore::CDom;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using VEXIL::DriverLogEntry;
using VEXIL::LogData;
using VEXIL::RecordCopy;

namespace {

TEST(LogDataSettings, AnalysisSettingsAreParsedAndBadValuesLeft) {
    CDom dom(":memory:");
    dom.Set("norvp.vexil.analysis.ScanPrY0H0", std::string("0.5"));
    dom.Set("norvp.vexil.analysis.ScanPrY0H1", std::string("0.25"));
    dom.Set("norvp.vexil.analysis.ScanTimeBinMillisec", std::string("2500"));
    dom.Set("norvp.vexil.analysis.ScanningIpsRetentionMsec", std::string("not a number"));
    // Values beyond 32 bits would wrap into a flag byte if they were cut.
    dom.Set("norvp.vexil.analysis.IgnoreTcpFlags",
            std::string("2, 0x12;18\t\t022 x17 256 -1 4294967296 -4294967295 0x100000012"));
    NorvCore::TakeOperatorLogLines();
    LogData log(dom);
    EXPECT_DOUBLE_EQ(0.5, log.GetScanRatioCleanBin());
    EXPECT_DOUBLE_EQ(1.5, log.GetScanRatioSuspectBin());
    EXPECT_EQ(2500u, log.GetTimeBinMsec());
    // A setting that does not parse leaves the default.
    EXPECT_EQ(300000u, log.GetScanningIpsRetentionMsec());
    EXPECT_EQ((std::set<u8>{2, 18}), log.GetIgnoreTcpFlags());
    std::vector<std::string> expected;
    for (const char* value : {"256", "-1", "4294967296", "-4294967295", "4294967314"}) {
        expected.push_back(std::string("Warning: IgnoreTcpFlags value ") + value +
                           " is out of range - ignoring it.");
    }
    EXPECT_EQ(expected, NorvCore::TakeOperatorLogLines());
}

TEST(LogDataSettings, BadBaseFolderLeavesNamesEmpty) {
    CDom dom(":memory:");
    dom.Set("norv.baseFolder", std::string("relative/folder"));
    NorvCore::TakeOperatorLogLines();
    LogData log(dom);
    EXPECT_EQ("", log.GetLogFilePath() + log.GetLogFileName() + log.GetLogFileFullPath());
    EXPECT_EQ(std::vector<std::string>{"Error: CLoggerThread(): Error 0x16 from SHGetFolderPath() "
                                       "getting System folder."},
              NorvCore::TakeOperatorLogLines());
    // Opening then fails with the event for the (empty) full path, and
    // nothing else is tried on the disk.
    EXPECT_FALSE(log.InitializeLogFile());
    EXPECT_EQ(std::vector<std::string>{"Warning: Agent event 6001: "},
              NorvCore::TakeOperatorLogLines());
}

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

// A log object with a folder of its own, writing through a function the
// store tests script (partial writes, interruptions and errors).
class InFolder : public ::testing::Test {
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

TEST_F(InFolder, FamilySortsByNumberLiveFileFirst) {
    for (const char* name : {"norv_mpnp.10", "norv_mpnp.9", "norv_mpnp", "norv_mpnp.1",
                             "norv_mpnp.bak", "norv_mpnp.-3", "other", "norv_mpnp.2"}) {
        std::ofstream(m_Temp.Path() + "/" + name) << "x";
    }
    wxFileName::Mkdir(m_Temp.Path() + "/norv_mpnp.dir");
    wxArrayString files;
    ASSERT_EQ(7u, m_Log.ListLogFiles("norv_mpnp", files));
    std::vector<std::string> names;
    for (const wxString& file : files) {
        names.push_back(wxFileName(file).GetFullName().ToStdString());
    }
    // The live file and the stray copies (no digits first) all count as number 0.
    EXPECT_EQ((std::vector<std::string>{"norv_mpnp", "norv_mpnp.-3", "norv_mpnp.bak", "norv_mpnp.1",
                                        "norv_mpnp.2", "norv_mpnp.9", "norv_mpnp.10"}),
              names);

    m_Log.SetLogFilePath(m_Temp.Path() + "/missing");
    EXPECT_EQ(size_t(-1), m_Log.ListLogFiles("norv_mpnp", files));
    EXPECT_TRUE(files.IsEmpty());
    ASSERT_EQ(std::vector<int>{6005}, EventNumbers(m_Dom));
    EXPECT_EQ(m_Temp.Path() + "/missing|No such file or directory", m_Dom.AgentEvents()[0].detail);
}

// A packet line with a padding column of the given length, first seen at the
// given second.
std::string Line(size_t padding, i64 seconds = 1700000000) {
    const std::string time = std::to_string(seconds) + "000000";
    return "2023/11/14, 22:13:20, f, 0, " + std::string(padding, 'x') + ", 1, " + time + ", " +
           time + "\r\n";
}

TEST_F(InFolder, ReadBackWithoutASinkStopsAtTheFirstHitAndMovesThePositionNoFurther) {
    // Live file: a line older than the margin, two late lines, a line in the span.
    const i64 t0 = 1700000000;
    std::ofstream(Path()) << Line(0, t0 - 5000) << Line(1, t0 - 5) << Line(2, t0 - 6)
                          << Line(3, t0);
    EXPECT_TRUE(m_Log.GetLogData(VEXIL::kRolePacket, t0, 0, "", nullptr));
    EXPECT_EQ("1", m_Dom.Get("norvp.vexil.lastline.packet"));
    // The lines behind the first hit are still to be delivered.
    VEXIL::LogLineSink sink(100);
    EXPECT_TRUE(m_Log.GetLogData(VEXIL::kRolePacket, t0, 0, "", &sink));
    EXPECT_EQ(2u, sink.LineCount());
    EXPECT_EQ("3", m_Dom.Get("norvp.vexil.lastline.packet"));
    // A hit in an old copy ends it before the live file with its new late line.
    std::ofstream(Path(".1")) << Line(4, t0 + 1);
    std::ofstream(Path(), std::ios::app) << Line(5, t0 - 7);
    EXPECT_TRUE(m_Log.GetLogData(VEXIL::kRolePacket, t0 + 1, 0, "", nullptr));
    EXPECT_EQ("3", m_Dom.Get("norvp.vexil.lastline.packet"));
}

// The read-back's line scan tests many bytes at a time: a byte outside
// 0x20..0x7E at any position of a line, whatever its place in a block of the
// scan, drops that line and no other; lines of every length come back whole,
// their last comma and line end found wherever they fall.
TEST_F(InFolder, ReadBackScanDropsOnlyTheLineOfABadByte) {
    std::string file;
    std::string expected;
    const unsigned char badBytes[] = {0x01, 0x1F, 0x7F, 0x80, 0xFF, 0x00};
    for (size_t padding = 0; padding <= 70; ++padding) {
        const std::string good = Line(padding);
        file += good;
        expected += good.substr(22, good.size() - 24) + "\n";
        // The same line with one bad byte in place of each of its bytes but
        // the line end.
        for (size_t at = 0; at + 2 < good.size(); ++at) {
            std::string bad = good;
            bad[at] = char(badBytes[(at + padding) % sizeof badBytes]);
            file += bad;
        }
    }
    // A last line without a line end is examined with its bad byte, but its
    // commas count only up to that byte: the time is not found and the
    // line is left out.
    std::string last = Line(40);
    last[66] = '\x01';
    file += last.substr(0, last.size() - 2);
    std::ofstream(Path(), std::ios::binary) << file;
    VEXIL::LogLineSink sink(VEXIL::LogLineSink::kMaxLines);
    ASSERT_TRUE(m_Log.GetLogData(VEXIL::kRolePacket, 0, 0, "test", &sink));

    EXPECT_EQ(expected, sink.JoinedText());
    EXPECT_EQ(71u, sink.LineCount());
}

// What the script hands over is the handle the log object keeps, and a
// refused box leaves it in place.
TEST(SetNorviEntry, KeepsACopyOfTheHandleAndIgnoresAClosedBox) {
    lua_State* L = luaL_newstate();
    ASSERT_NE(nullptr, L);
    luaL_openlibs(L);
    const char* const chunk = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so'\n"
                              "require 'norv'\n"
                              "local norvi = require 'norvi'\n"
                              "assert(require 'vexil')\n"
                              "dom = SLB.norv.Dom(':memory:')\n"
                              "log = SLB.vexil.LogData(dom)\n"
                              "first = assert(norvi.open())\n"
                              "assert(log:SetNorvi(first) == 1)\n"
                              "local second = assert(norvi.open())\n"
                              "second:close()\n"
                              "assert(not pcall(log.SetNorvi, log, second))\n"
                              "return log, first";
    ASSERT_EQ(LUA_OK, luaL_dostring(L, chunk)) << lua_tostring(L, -1);
    VEXIL::LogData* log = SLB::get<VEXIL::LogData*>(L, -2);
    ASSERT_NE(nullptr, log);
    auto* box = static_cast<norvi_handle_t*>(luaL_testudata(L, -1, "norvi_handle_t*"));
    ASSERT_NE(nullptr, box);
    const norvi_handle_t handle = *box;
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(handle, log->GetNorviHandle());

    // Closing the script's box leaves the log object's copy as it was.
    ASSERT_EQ(LUA_OK, luaL_dostring(L, "first:close()")) << lua_tostring(L, -1);
    EXPECT_EQ(nullptr, *box);
    EXPECT_EQ(handle, log->GetNorviHandle());
    lua_close(L);
}

// The store's handling of write faults; a small tmpfs gives a real full disk
// where the test may mount one.
TEST_F(InFolder, PartialWritesAndInterruptionsStillWriteEverything) {
    EXPECT_TRUE(m_Log.WriteRawData(0, nullptr));
    EXPECT_TRUE(g_Descriptors.empty());
    g_Steps = {{0, 3}, {EINTR, 0}, {0, 4}, {EINTR, 0}, {EINTR, 0}};
    EXPECT_TRUE(Write("0123456789abcdef"));
    EXPECT_EQ("0123456789abcdef", Content(Path()));
    EXPECT_EQ(6u, g_Descriptors.size());
    EXPECT_TRUE(m_Dom.AgentEvents().empty());
}

TEST_F(InFolder, OutOfSpaceDeletesTheOldestCopyOncePerProgress) {
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

TEST_F(InFolder, SecondShortageWithoutProgressFailsAndClosesTheFile) {
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

TEST_F(InFolder, OtherErrorsAndAFamilyThatCannotBeListedGive6002) {
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

// Rendering of single records: the columns of a log line on crafted records,
// the bounds of the working copy, and SyslogFormat without a configuration.
// A record built field by field at the wire offsets.
struct Record {
    DriverLogEntry entry{};
    template <typename T>
    Record& Set(size_t offset, T value) {
        std::memcpy(entry.bytes + offset, &value, sizeof value);
        return *this;
    }
    Record& SetBytes(size_t offset, const std::string& bytes) {
        std::memcpy(entry.bytes + offset, bytes.data(), bytes.size());
        return *this;
    }
    Record& Flags(u16 flags) { return Set<u16>(38, flags); }
    Record& Proto(u8 protocol) { return Set<u8>(129, protocol); }
};

class Render : public ::testing::Test {
protected:
    std::string Line(const DriverLogEntry& record) {
        std::string line = "stale";
        u64 first = 0, last = 0;
        EXPECT_TRUE(m_Log.BinaryToAscii(&record, line, first, last));
        m_First = first;
        m_Last = last;
        return line;
    }
    NorvCore::CDom m_Dom{":memory:"};
    LogData m_Log{m_Dom};
    u64 m_First = 0, m_Last = 0;
};

TEST_F(Render, EmptyPacketRecordKeepsEverySeparator) {
    Record record;
    record.Set<u32>(0, 7).Set<u32>(4, 8).Set<u32>(88, 4000000000u).Set<u32>(92, 999999);
    EXPECT_EQ("f, 0, 1, , , , , , , , , , , 0, 0, 0, 0, -1, , 0, 0, 0, 0, , , ",
              Line(record.entry));
    EXPECT_EQ(7000008u, m_First);
    EXPECT_EQ(4000000000999999u, m_Last);
}

TEST_F(Render, ClipsMacAndNoteAndPrintsOddFrameTypes) {
    Record record;
    record.Flags(0x3B).Set<u32>(40, 20).SetBytes(44, "\x01\x02\x03\x04\x05\x06\x07\x08");
    // The 17th note byte would be the first byte of data_len, 0xCD.
    record.Set<u16>(56, 17).SetBytes(60, std::string(16, '\xAB')).Set<u8>(76, 0xCD);
    record.Set<u16>(114, htons(0x1234)).Proto(17).SetBytes(132, std::string("\x0A\x00\x00\x01", 4));
    const std::string line = Line(record.entry);
    EXPECT_EQ(0u, line.find("f, 1, 0, 01 02 03 04 05 06 07 08, 0x1234, 00 00 00 00 00 00, "))
        << line;
    // Both IP bits: the record is IPv4.
    EXPECT_THAT(line, HasSubstr(", UDP, , 10.0.0.1, , 0.0.0.0, , "));
    EXPECT_THAT(line, HasSubstr(", ABABABABABABABABABABABABABABABAB, "));
    EXPECT_THAT(line, Not(HasSubstr("CD")));
}

// The bounds of the working copy; announced data beyond what arrived reads as
// zeros, not as the bytes an earlier record left there.
TEST_F(Render, WorkingCopyBoundsAndDataThatDidNotArrive) {
    static RecordCopy copy;
    const Record record;
    const std::vector<u8> data(65345, 0xEE);
    EXPECT_TRUE(copy.Fill(&record.entry, data.data(), 65344));
    EXPECT_FALSE(copy.Fill(&record.entry, data.data(), 65345));
    EXPECT_FALSE(copy.Fill(nullptr, data.data(), 1));
    EXPECT_FALSE(copy.Fill(&record.entry, nullptr, 1));
    EXPECT_TRUE(copy.Fill(&record.entry, nullptr, 0));
    // An announced length beyond the room is cut to it.
    Record huge;
    huge.Set<u16>(76, 0xFFFF);
    ASSERT_TRUE(copy.Fill(&huge.entry, nullptr, 0));
    EXPECT_EQ(65344u, copy.Entry()->boundedDataLen());

    ASSERT_TRUE(copy.Fill(&record.entry, data.data(), 8));
    Record announced;
    announced.Set<u16>(84, 0x02).Set<u16>(76, 6);
    const u8 arrived[2] = {0xAB, 0xCD};
    ASSERT_TRUE(copy.Fill(&announced.entry, arrived, sizeof arrived));
    EXPECT_THAT(Line(*copy.Entry()), EndsWith(", 8, 0, 0, ABCD00000000, "));
}

// SyslogFormat called directly, on the path that the script entry cannot
// reach: no configuration table at all.
TEST_F(Render, SyslogFormatMakesNothingWithoutConfiguration) {
    NORVI::CRecordBuilder record;
    record.AddFlags(NORVI::Record::kIpv4);
    VEXIL::RecordCopy copy;
    ASSERT_TRUE(copy.Fill(record.Bytes(), nullptr, 0));
    std::string result = "untouched";
    EXPECT_FALSE(m_Log.SyslogFormat(copy.Entry(), result));
    EXPECT_EQ("untouched", result);
}

}  // namespace
