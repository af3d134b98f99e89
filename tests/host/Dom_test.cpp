// CDom: typed values, unusable stores, conditions, the exit request and
// agent events.
#include "host/Dom.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "host/Trace.h"
#include "tests/TempFolder.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string U(const wxString& text) {
    return std::string(text.utf8_str().data());
}

class DomTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(NorvCore::CDom::Current(), nullptr);
        NorvCore::TakeOperatorLogLines();
    }
};

TEST_F(DomTest, TypedReadsOfStoredText) {
    NorvCore::CDom dom(":memory:");
    ASSERT_TRUE(dom.Set("flag", true));
    EXPECT_EQ(dom.Get("flag"), "1");
    EXPECT_EQ(dom.Get("missing"), "");
    dom.Set("text", std::string("a=b|c \xc3\xa9"));
    EXPECT_EQ(U(dom.GetWxString("text")), "a=b|c \xc3\xa9");

    // {text, as number (or 5 when it is none), as flag: 1 true, 0 false, -1 none}
    const struct {
        const char* text;
        i64 number;
        int flag;
    } cases[] = {{"-9223372036854775808", INT64_MIN, -1},
                 {" 42 ", 42, -1},
                 {"1", 1, 1},
                 {"0", 0, 0},
                 {"TRUE", 5, 1},
                 {"False", 5, 0},
                 {"99999999999999999999", 5, -1},
                 {"12abc", 5, -1},
                 {"truex", 5, -1},
                 {"", 5, -1}};
    for (const auto& c : cases) {
        dom.Set("v", std::string(c.text));
        i64 number = 5;
        EXPECT_EQ(dom.Get("v", number), c.number != 5) << c.text;
        EXPECT_EQ(number, c.number) << c.text;
        for (const bool initial : {false, true}) {
            bool flag = initial;
            EXPECT_EQ(dom.Get("v", flag), c.flag >= 0) << c.text;
            EXPECT_EQ(flag, c.flag >= 0 ? c.flag == 1 : initial) << c.text;
        }
    }

    wxString folder;
    dom.Set("norv.baseFolder", std::string("/srv/norv"));
    EXPECT_TRUE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "/srv/norv");
    dom.Set("norv.baseFolder", std::string("relative/norv"));
    EXPECT_FALSE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "/srv/norv");
}

TEST_F(DomTest, UnusableStoreAnswersAbsentAndStillLogsEvents) {
    TempFolder folder;
    const std::string junk = folder.Path() + "/junk.db";
    FILE* file = fopen(junk.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("this is not an SQLite database, just text that is long enough to be read\n", file);
    fclose(file);
    for (const std::string& path : {std::string("/nonexistent-norv-folder/sub/host.db"), junk}) {
        NorvCore::CDom dom(path);
        EXPECT_FALSE(dom.IsOpen());
        EXPECT_EQ(NorvCore::TakeOperatorLogLines().size(), 1u) << path;
        i64 number = 3;
        EXPECT_FALSE(dom.Get("k", number));
        EXPECT_FALSE(dom.Set("k", i64{1}));
        dom.AgentEventWrite(6009, "");
        EXPECT_TRUE(dom.AgentEvents().empty());
        EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
                  std::vector<std::string>{"Warning: Agent event 6009: "});
    }
}

TEST_F(DomTest, ConditionsCountAndWakeWaitersAsDoesTheExitRequest) {
    NorvCore::CDom dom(":memory:");
    u64 count = 99;
    EXPECT_FALSE(dom.ConditionQuery("c", count, nullptr, nullptr));
    EXPECT_EQ(count, 0u);
    auto before = Clock::now();
    bool woken = true;
    EXPECT_FALSE(dom.ShouldExit(30, &woken));
    EXPECT_FALSE(woken);
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(29));

    std::thread raiser([&dom] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom.ConditionRaise("other");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom.ConditionRaise("c");
    });
    before = Clock::now();
    EXPECT_TRUE(dom.ConditionWait("c", 0, 60000));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    raiser.join();
    EXPECT_EQ(dom.ConditionRaise("c"), 2u);
    EXPECT_TRUE(dom.ConditionQuery("c", count, nullptr, nullptr));
    EXPECT_EQ(count, 2u);
    // Already moved past lastSeen: no wait at all.
    EXPECT_TRUE(dom.ConditionWait("c", 1, 60000));

    std::thread requester([&dom] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom.RequestExit();
    });
    before = Clock::now();
    EXPECT_TRUE(dom.ShouldExit(60000, &woken));
    EXPECT_TRUE(woken);
    requester.join();
    // Set once, the request answers at once, and ends condition waits too.
    EXPECT_TRUE(dom.ShouldExit(60000, nullptr));
    EXPECT_FALSE(dom.ConditionWait("never", 0, 60000));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
}

TEST_F(DomTest, EventsGoToTheNewestLiveDomAndTheOperatorLog) {
    NorvCore::CDom::DoLogAgentEvent(0, 3300, L"%.128s", "nobody");
    EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
              std::vector<std::string>{"Warning: Agent event 3300: nobody"});
    NorvCore::CDom older(":memory:");
    {
        NorvCore::CDom dom(":memory:");
        EXPECT_EQ(NorvCore::CDom::Current(), &dom);
        dom.DoAgentEventWrite(6007, L"%.128s|%.128s|%.128s", "/a", "/b", "denied");
        NorvCore::CDom::DoLogAgentEvent(0, 6005, L"%.128s|%.128s", "a", "b");
        const auto events = dom.AgentEvents();
        ASSERT_EQ(events.size(), 2u);
        EXPECT_EQ(events[0].number, 6007);
        EXPECT_EQ(U(events[0].detail), "/a|/b|denied");
        EXPECT_EQ(events[1].number, 6005);
        EXPECT_EQ(U(events[1].detail), "a|b");
        EXPECT_TRUE(older.AgentEvents().empty());
        EXPECT_EQ(NorvCore::TakeOperatorLogLines(),
                  (std::vector<std::string>{"Warning: Agent event 6007: /a|/b|denied",
                                            "Warning: Agent event 6005: a|b"}));
    }
    EXPECT_EQ(NorvCore::CDom::Current(), &older);
    NorvCore::CDom::DoLogAgentEvent(0, 6006, L"%d", 12);
    ASSERT_EQ(older.AgentEvents().size(), 1u);
    EXPECT_EQ(U(older.AgentEvents()[0].detail), "12");
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
