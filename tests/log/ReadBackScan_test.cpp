// The read-back's line scan, which tests many bytes at a time: a byte outside
// 0x20..0x7E at any position of a line, whatever its place in a block of the
// scan, drops that line and no other; lines of every length come back whole,
// their last comma and line end found wherever they fall.
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/Dom.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"
#include "tests/TempFolder.h"

namespace {

// A packet line with a padding column of the given length.
std::string Line(size_t padding) {
    return "2023/11/14, 22:13:20, f, 0, " + std::string(padding, 'x') +
           ", 1, 1700000000000000, 1700000000000000\r\n";
}

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

}  // namespace
