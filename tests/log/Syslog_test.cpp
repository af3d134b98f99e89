// SyslogFormat called directly, on the path that the script entry cannot
// reach: no configuration table at all.
#include <string>

#include <gtest/gtest.h>

#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

namespace {

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
