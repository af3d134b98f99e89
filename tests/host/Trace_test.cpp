// Trace categories, trace lines and the operator log.
#include "host/Trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
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
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"norvp.vexil.SSLCertThread", true},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"vexi", false},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"vexil2", false},
                 {"vexil, LogScan ,,norvp.vexil.SSLCertThread", L"logscan", false},
                 {"vexil", nullptr, false},
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
    EXPECT_TRUE(NorvCore::TakeTraceLines().empty());

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
    EXPECT_EQ(lines[0].rfind("vexil Trace_test.cpp:", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("LinesHaveTheirPartsAndTheMacroBuildsOnlyWhenEnabled"),
              std::string::npos);
    EXPECT_NE(lines[0].find(": built"), std::string::npos);

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

TEST_F(TraceTest, SwitchingWhileOtherThreadsTraceIsSafe) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&stop] {
            while (!stop.load()) {
                if (NorvCore::LogTraceIsEnabled(L"vexil")) {
                    NorvCore::LogTrace("vexil", "f", 1, "fn", "m");
                }
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        NorvCore::SetTraceCategories(i % 3 == 0 ? "vexil,a,b" : (i % 3 == 1 ? "*" : ""));
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::string& line : NorvCore::TakeTraceLines()) {
        ASSERT_EQ(line, "vexil f:1 fn: m");
    }
}

TEST_F(TraceTest, OperatorLogKeepsErrorsAndWarningsFromEveryThread) {
    std::vector<std::string> seenOnThread;
    std::thread thread([&seenOnThread] {
        wxLogError("from a plain thread");
        seenOnThread = NorvCore::TakeOperatorLogLines();
    });
    thread.join();
    // The toolkit held the line back for the main thread.
    EXPECT_TRUE(seenOnThread.empty());
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
    EXPECT_TRUE(NorvCore::TakeOperatorLogLines().empty());
}

std::atomic<int> s_Assertions{0};

TEST_F(TraceTest, TheEchoAndTheAssertionHookSeeEveryLine) {
    FILE* echo = tmpfile();
    ASSERT_NE(echo, nullptr);
    FILE* const before = NorvCore::SetOperatorLogEcho(echo);
    NorvCore::SetAssertionHook([](const char* text) {
        s_Assertions += std::string(text).find("\"1 == 2\"") != std::string::npos ? 1 : 100;
    });
    wxLogWarning("to the echo");
    wxASSERT(1 == 2);
    NorvCore::SetAssertionHook(nullptr);
    wxASSERT(1 == 2);
    NorvCore::SetOperatorLogEcho(nullptr);
    wxLogWarning("to nowhere");
    EXPECT_EQ(NorvCore::SetOperatorLogEcho(before), nullptr);

    EXPECT_EQ(s_Assertions.load(), 1);
    // Every line is kept, whatever the echo.
    EXPECT_EQ(NorvCore::TakeOperatorLogLines().size(), 4u);
    char text[256] = "";
    rewind(echo);
    const size_t length = fread(text, 1, sizeof text - 1, echo);
    fclose(echo);
    const std::string printed(text, length);
    EXPECT_EQ(printed.find("Warning: to the echo\nWarning: Assertion"), 0u) << printed;
    EXPECT_EQ(printed.find("to nowhere"), std::string::npos);
}

}  // namespace
