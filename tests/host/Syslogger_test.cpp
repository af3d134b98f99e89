// CSyslogger: settings from the current CDom, the CEF header and host
// identity, the two CEF escapes, and appends bounded by the buffer size.
#include <cstring>
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

std::string Identity(CSyslogger& syslogger, int hostId) {
    char buffer[256] = "x";
    syslogger.AppendHostIdentityCEF(hostId, buffer, sizeof(buffer));
    return buffer;
}

}  // namespace

TEST(SysloggerTest, DefaultsWithoutHostStore) {
    ASSERT_EQ(nullptr, CDom::Current());
    CSyslogger syslogger("pnp");
    syslogger.UpdateConfig();
    EXPECT_FALSE(syslogger.GetSyslogFormatCEF());
    EXPECT_EQ(0, syslogger.GetSyslogFormat());
    EXPECT_EQ("CEF:0|Norv|Agent|1.0|", Header(syslogger));
    const std::string host(CSyslogger::EscapeCEFExtension(wxGetHostName()).utf8_str());
    EXPECT_EQ("x dvchost=" + host + " deviceExternalId=7", Identity(syslogger, 7));
}

TEST(SysloggerTest, ReadsSettingsOnEachUpdate) {
    CDom dom(":memory:");
    CSyslogger syslogger("pnp");
    syslogger.UpdateConfig();
    EXPECT_FALSE(syslogger.GetSyslogFormatCEF());

    ASSERT_TRUE(dom.Set("norv.syslog.cef", true));
    ASSERT_TRUE(dom.Set("norv.syslog.format", static_cast<i64>(-3)));
    ASSERT_TRUE(dom.Set("norv.syslog.cef.vendor", std::string("Ac|me\\")));
    ASSERT_TRUE(dom.Set("norv.syslog.cef.product", std::string("Wall \xE2\x9C\x93")));
    ASSERT_TRUE(dom.Set("norv.syslog.cef.version", std::string("2.5")));
    ASSERT_TRUE(dom.Set("norv.syslog.hostname", std::string("db=1\nx\\y")));
    // Nothing changes before the next update.
    EXPECT_FALSE(syslogger.GetSyslogFormatCEF());

    syslogger.UpdateConfig();
    EXPECT_TRUE(syslogger.GetSyslogFormatCEF());
    EXPECT_EQ(-3, syslogger.GetSyslogFormat());
    EXPECT_EQ("CEF:0|Ac\\|me\\\\|Wall \xE2\x9C\x93|2.5|", Header(syslogger));
    EXPECT_EQ("x dvchost=db\\=1\\nx\\\\y deviceExternalId=-1", Identity(syslogger, -1));

    ASSERT_TRUE(dom.Remove("norv.syslog.cef.vendor"));
    ASSERT_TRUE(dom.Set("norv.syslog.cef", false));
    ASSERT_TRUE(dom.Set("norv.syslog.format", static_cast<i64>(1) << 40));
    syslogger.UpdateConfig();
    EXPECT_FALSE(syslogger.GetSyslogFormatCEF());
    EXPECT_EQ(0, syslogger.GetSyslogFormat());
    EXPECT_EQ("CEF:0|Norv|Wall \xE2\x9C\x93|2.5|", Header(syslogger));
}

TEST(SysloggerTest, Escapes) {
    EXPECT_EQ("a\\|b\\\\c=d\nx", CSyslogger::EscapeCEFPrefix("a|b\\c=d\nx"));
    EXPECT_EQ("a|b\\\\c\\=d\\r\\ne\\nf", CSyslogger::EscapeCEFExtension("a|b\\c=d\r\ne\nf"));
    EXPECT_EQ("", CSyslogger::EscapeCEFExtension(""));
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

    char full8[8] = "1234567";
    syslogger.AppendHostIdentityCEF(5, full8, sizeof(full8));
    EXPECT_STREQ("1234567", full8);

    char unterminated[4] = {'a', 'b', 'c', 'd'};
    syslogger.AppendHeaderCEF(unterminated, sizeof(unterminated));
    EXPECT_EQ(0, memcmp(unterminated, "abcd", 4));

    syslogger.AppendHeaderCEF(nullptr, 10);
    char small[16] = "id";
    syslogger.AppendHostIdentityCEF(5, small, 0);
    EXPECT_STREQ("id", small);
}
