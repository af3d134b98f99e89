// Trace categories, trace lines and the operator log.
#include "host/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <wx/log.h>

#include "host/Toolkit.h"

namespace {

class TraceTest : public testing::Test {
protected:
    void SetUp() override {
        NorvCore::SetTraceCategories("");
        NorvCore::TakeTraceLines();
        NorvCore::TakeOperatorLogLines();
    }
    void TearDown() override { NorvCore::SetTraceCategories(""); }
};

TEST_F(TraceTest, GuardMatchesWholeNames) {
    const struct {
        const char* setting;
        const wchar_t* category;
        bool enabled;
    } cases[] = {{"", L"vexil", false},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"LogScan", true},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"vexi", false},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"vexil2", false},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"logscan", false},
                 {"*", L"anything", true},
                 {"*", nullptr, false},
                 {" , ", L"anything", false}};
    for (const auto& c : cases) {
        NorvCore::SetTraceCategories(c.setting);
        EXPECT_EQ(NorvCore::LogTraceIsEnabled(c.category), c.enabled) << c.setting;
    }
}

TEST_F(TraceTest, LinesHaveTheirPartsAndTheMacroBuildsOnlyWhenEnabled) {
    NorvCore::LogTrace("vexil", "LogData.cpp", 42, "VEXIL::LogData::CacheRecord", L"hello \u00e9");
    NorvCore::LogTrace("LogScan", nullptr, 7, nullptr, "x");
    auto lines = NorvCore::TakeTraceLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "vexil LogData.cpp:42 VEXIL::LogData::CacheRecord: hello \xc3\xa9");
    EXPECT_EQ(lines[1], "LogScan ?:7 ?: x");

    int built = 0;
    const auto message = [&built] {
        ++built;
        return wxString("built");
    };
    NORV_TRACE(L"vexil", message());
    EXPECT_EQ(built, 0);
    EXPECT_TRUE(NorvCore::TakeTraceLines().empty());
    NorvCore::SetTraceCategories("vexil");
    NORV_TRACE(L"vexil", message());
    EXPECT_EQ(built, 1);
    lines = NorvCore::TakeTraceLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0],
                testing::MatchesRegex("vexil Trace_test\\.cpp:[0-9]+ .*"
                                      "LinesHaveTheirPartsAndTheMacroBuildsOnlyWhenEnabled_"
                                      "Test::TestBody: built"));

    EXPECT_STREQ(NorvCore::ShortFileName("dir/"), "");
    EXPECT_STREQ(NorvCore::ShortFileName(nullptr), "");
    EXPECT_EQ("VEXIL::LogData::CacheRecord",
              NorvCore::QualifiedFunctionName(
                  "bool VEXIL::LogData::CacheRecord(const string&, u64, u64, u32)"));
    EXPECT_EQ("VEXIL::CSSLCertThread::CSSLCertThread",
              NorvCore::QualifiedFunctionName("VEXIL::CSSLCertThread::CSSLCertThread(CDom&)"));
    // Blanks inside template arguments do not end the return type early.
    EXPECT_EQ("Make<std::pair<int, int> >",
              NorvCore::QualifiedFunctionName("std::map<int, int> Make<std::pair<int, int> >()"));
}

TEST_F(TraceTest, OperatorLogKeepsErrorsAndWarningsFromEveryThread) {
    // The toolkit holds a plain thread's line back until the main thread takes.
    std::thread([] { wxLogError("from a plain thread"); }).join();
    EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
              std::vector<std::string>{"Error: from a plain thread"});

    NorvCore::InstallOperatorLog();  // a second install changes nothing
    EXPECT_EQ(wxLog::GetActiveTarget(), NorvCore::OperatorLogTarget());
    wxLogError("disk %s is %d%% full", "sda", 99);
    wxLogWarning("careful");
    wxLogMessage("message");
    wxLogInfo("info");
    wxLogDebug("debug");
    EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
              (std::vector<std::string>{"Error: disk sda is 99% full", "Warning: careful"}));
}

std::atomic<int> s_Assertions{0};

TEST_F(TraceTest, AssertionsWarnAndTheEchoPrintsEveryLine) {
    FILE* echo = tmpfile();
    ASSERT_NE(echo, nullptr);
    FILE* const before = NorvCore::SetOperatorLogEcho(echo);
    NorvCore::SetAssertionHook([](const char*) { ++s_Assertions; });
    wxLogWarning("to the echo");
    wxASSERT(1 == 2);
    NorvCore::SetAssertionHook(nullptr);
    NorvCore::SetOperatorLogEcho(nullptr);
    wxLogWarning("to nowhere");
    EXPECT_EQ(NorvCore::SetOperatorLogEcho(before), nullptr);
    EXPECT_EQ(s_Assertions.load(), 1);

    // Every line is kept, whatever the echo.
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].rfind("Warning: Assertion \"1 == 2\" failed", 0), 0u) << lines[1];
    char text[512] = "";
    rewind(echo);
    const std::string printed(text, fread(text, 1, sizeof text - 1, echo));
    fclose(echo);
    EXPECT_EQ(printed, lines[0] + "\n" + lines[1] + "\n");
}

}  // namespace
