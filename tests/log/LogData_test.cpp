// The log object's frame: settings read at construction, file names, listing
// the family, the read-back without a sink and its byte scan, and the script
// entry SetNorvi seen from both sides. Opening the file is covered by the Lua
// specs.
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "host/Dom.h"
#include "host/Trace.h"
#include "host/slb/SLB.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"
#include "tests/TempFolder.h"

using NorvCore::CDom;
using VEXIL::LogData;

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

    log.SetLogFilePath(temp.Path() + "/missing");
    EXPECT_EQ(size_t(-1), log.ListLogFiles("norv_mpnp", files));
    EXPECT_TRUE(files.IsEmpty());
    const auto events = dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(6005, events[0].number);
    EXPECT_EQ(temp.Path() + "/missing|No such file or directory", events[0].detail);
}

// A packet line with a padding column of the given length, first seen at the
// given second.
std::string Line(size_t padding, i64 seconds = 1700000000) {
    const std::string time = std::to_string(seconds) + "000000";
    return "2023/11/14, 22:13:20, f, 0, " + std::string(padding, 'x') + ", 1, " + time + ", " +
           time + "\r\n";
}

TEST(LogDataReadBack, WithoutASinkStopsAtTheFirstHitAndMovesThePositionNoFurther) {
    TempFolder temp;
    // Live file: a line older than the margin, two late lines, a line in the span.
    const i64 t0 = 1700000000;
    std::ofstream(temp.Path() + "/norv_mpnp")
        << Line(0, t0 - 5000) << Line(1, t0 - 5) << Line(2, t0 - 6) << Line(3, t0);
    CDom dom(":memory:");
    LogData log(dom);
    log.SetLogFilePath(temp.Path());
    EXPECT_TRUE(log.GetLogData(VEXIL::kRolePacket, t0, 0, "", nullptr));
    EXPECT_EQ("1", dom.Get("norvp.vexil.lastline.packet"));
    // The lines behind the first hit are still to be delivered.
    VEXIL::LogLineSink sink(100);
    EXPECT_TRUE(log.GetLogData(VEXIL::kRolePacket, t0, 0, "", &sink));
    EXPECT_EQ(2u, sink.LineCount());
    EXPECT_EQ("3", dom.Get("norvp.vexil.lastline.packet"));
    // A hit in an old copy ends it before the live file with its new late line.
    std::ofstream(temp.Path() + "/norv_mpnp.1") << Line(4, t0 + 1);
    std::ofstream(temp.Path() + "/norv_mpnp", std::ios::app) << Line(5, t0 - 7);
    EXPECT_TRUE(log.GetLogData(VEXIL::kRolePacket, t0 + 1, 0, "", nullptr));
    EXPECT_EQ("3", dom.Get("norvp.vexil.lastline.packet"));
}

// The read-back's line scan tests many bytes at a time: a byte outside
// 0x20..0x7E at any position of a line, whatever its place in a block of the
// scan, drops that line and no other; lines of every length come back whole,
// their last comma and line end found wherever they fall.

TEST(ReadBackScan, ABadByteAnywhereDropsOnlyItsLine) {
    TempFolder folder;
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
    std::ofstream(folder.Path() + "/norv_mpnp", std::ios::binary) << file;

    NorvCore::CDom dom(":memory:");
    VEXIL::LogData log(dom);
    log.SetLogFilePath(folder.Path());
    VEXIL::LogLineSink sink(VEXIL::LogLineSink::kMaxLines);
    ASSERT_TRUE(log.GetLogData(VEXIL::kRolePacket, 0, 0, "test", &sink));

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

}  // namespace
