// Rendering of single records: the columns of a log line on crafted records,
// the bounds of the working copy, and SyslogFormat without a configuration. The words of single
// fields show in the full lines of the render and syslog specs.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using VEXIL::DriverLogEntry;
using VEXIL::LogData;
using VEXIL::RecordCopy;

namespace {

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
TEST(SyslogFormat, NothingIsMadeWithoutConfiguration) {
    NORVI::CRecordBuilder record;
    record.AddFlags(NORVI::Record::kIpv4);
    VEXIL::RecordCopy copy;
    ASSERT_TRUE(copy.Fill(record.Bytes(), nullptr, 0));
    NorvCore::CDom dom(":memory:");
    VEXIL::LogData log(dom);
    std::string result = "untouched";
    EXPECT_FALSE(log.SyslogFormat(copy.Entry(), result));
    EXPECT_EQ("untouched", result);
}

}  // namespace
