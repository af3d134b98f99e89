// CSyslogger: settings from the current CDom, the two CEF escapes, and
// appends bounded by the buffer size.
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <wx/utils.h>

#include "host/Dom.h"
#include "host/Syslogger.h"

using NorvCore::CDom;
using NorvCore::CSyslogger;

namespace {

std::string Header(CSyslogger& syslogger) {
    char buffer[256] = "";
    syslogger.AppendHeaderCEF(buffer, sizeof(buffer));
    return buffer;
}

}  // namespace

TEST(SysloggerTest, Escapes) {
    // A header field keeps no control character: line breaks too become blanks.
    EXPECT_EQ("a\\|b\\\\c=d x", CSyslogger::EscapeCEFPrefix("a|b\\c=d\nx"));
    EXPECT_EQ(wxString("v  1  2  3"),
              CSyslogger::EscapeCEFPrefix(wxString::FromUTF8("v\r\t1\x7f\x01"
                                                             "2\xC2\x85\t3")));
    EXPECT_EQ("a|b\\\\c\\=d\\r\\ne\\nf", CSyslogger::EscapeCEFExtension("a|b\\c=d\r\ne\nf"));
    EXPECT_EQ(wxString("x y z"),
              CSyslogger::EscapeCEFExtension(wxString::FromUTF8("x\ty\xE2\x80\xA8z")));
    const wxString unicode = wxString::FromUTF8("\xC3\xA9=\xF0\x9F\x94\x92");
    EXPECT_EQ(wxString::FromUTF8("\xC3\xA9\\=\xF0\x9F\x94\x92"),
              CSyslogger::EscapeCEFExtension(unicode));
}

TEST(SysloggerTest, AppendsAreCutToTheBufferAtCharacterBoundaries) {
    CDom dom(":memory:");
    ASSERT_TRUE(dom.Set("norv.syslog.cef.vendor", std::string("\xC3\xA9\xC3\xA9\xC3\xA9")));
    CSyslogger syslogger("pnp");
    syslogger.UpdateConfig();
    const std::string full = "CEF:0|\xC3\xA9\xC3\xA9\xC3\xA9|Agent|1.0|";
    ASSERT_EQ(full, Header(syslogger));

    // Each size gets the longest whole-character start of the text, and the
    // bytes past the size stay untouched.
    for (size_t size = 1; size <= full.size() + 1; ++size) {
        char buffer[64];
        memset(buffer, '#', sizeof(buffer));
        buffer[0] = '\0';
        syslogger.AppendHeaderCEF(buffer, size);
        const std::string text(buffer);
        ASSERT_LT(text.size(), size);
        EXPECT_EQ(0, full.compare(0, text.size(), text));
        EXPECT_TRUE(text.size() == full.size() || text.size() + 1 >= size - 1) << size;
        EXPECT_NE(0xC3, static_cast<unsigned char>(text.empty() ? 0 : text.back())) << size;
        for (size_t i = size; i < sizeof(buffer); ++i) {
            ASSERT_EQ('#', buffer[i]) << size;
        }
    }

    // A full or unterminated buffer, or none at all, is left alone.
    char full8[8] = "1234567";
    syslogger.AppendHostIdentityCEF(5, full8, sizeof(full8));
    EXPECT_STREQ("1234567", full8);
    char unterminated[4] = {'a', 'b', 'c', 'd'};
    syslogger.AppendHeaderCEF(unterminated, sizeof(unterminated));
    EXPECT_EQ(0, memcmp(unterminated, "abcd", 4));
    syslogger.AppendHeaderCEF(nullptr, 10);
    syslogger.AppendHostIdentityCEF(5, full8, 0);
    EXPECT_STREQ("1234567", full8);
}

TEST(SysloggerTest, EachUpdateReadsTheCurrentStore) {
    CSyslogger syslogger("pnp");
    char identity[256] = "x";
    syslogger.AppendHostIdentityCEF(-1, identity, sizeof(identity));
    EXPECT_EQ(
        "x dvchost=" + std::string(CSyslogger::EscapeCEFExtension(wxGetHostName()).utf8_str()) +
            " deviceExternalId=-1",
        std::string(identity));

    auto dom = std::make_unique<CDom>(":memory:");
    ASSERT_TRUE(dom->Set("norv.syslog.cef", true));
    ASSERT_TRUE(dom->Set("norv.syslog.cef.product", std::string("P")));
    ASSERT_TRUE(dom->Set("norv.syslog.format", i64(2)));
    syslogger.UpdateConfig();
    EXPECT_TRUE(syslogger.GetSyslogFormatCEF());
    EXPECT_EQ(2, syslogger.GetSyslogFormat());
    EXPECT_EQ("CEF:0|Norv|P|1.0|", Header(syslogger));
    // A format that does not fit an int is no format.
    ASSERT_TRUE(dom->Set("norv.syslog.format", (i64(1) << 40) + 7));
    syslogger.UpdateConfig();
    EXPECT_EQ(0, syslogger.GetSyslogFormat());

    // A new store, even one made where the old one stood, is read afresh.
    dom.reset();
    dom = std::make_unique<CDom>(":memory:");
    syslogger.UpdateConfig();
    EXPECT_FALSE(syslogger.GetSyslogFormatCEF());
    EXPECT_EQ("CEF:0|Norv|Agent|1.0|", Header(syslogger));
}
