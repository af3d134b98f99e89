// CDom: the store and its persistence, typed values, conditions, exit waits
// and agent events.
#include "host/Dom.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "host/Trace.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string U(const wxString& text) {
    return std::string(text.utf8_str().data());
}

// A temporary folder, removed with the files the test made in it.
class TempFolder {
public:
    TempFolder() {
        char pattern[] = "/tmp/norv-dom-XXXXXX";
        m_Path = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempFolder() {
        const std::string command = "rm -rf '" + m_Path + "'";
        if (!m_Path.empty() && system(command.c_str()) != 0) {
            ADD_FAILURE() << "could not remove " << m_Path;
        }
    }
    std::string File(const char* name) const { return m_Path + "/" + name; }

private:
    std::string m_Path;
};

class DomTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(NorvCore::CDom::Current(), nullptr);
        NorvCore::TakeOperatorLogLines();
    }
};

TEST_F(DomTest, TypedValuesReadBackAndBadTextIsAbsent) {
    NorvCore::CDom dom(":memory:");
    ASSERT_TRUE(dom.IsOpen());
    EXPECT_TRUE(dom.Set("n", i64{-9223372036854775807LL - 1}));
    EXPECT_TRUE(dom.Set("flag", true));
    EXPECT_TRUE(dom.Set("text", std::string("a=b|c \xc3\xa9")));
    EXPECT_EQ(dom.Get("n"), "-9223372036854775808");
    EXPECT_EQ(dom.Get("flag"), "1");

    i64 number = 5;
    EXPECT_TRUE(dom.Get("n", number));
    EXPECT_EQ(number, INT64_MIN);
    bool flag = false;
    EXPECT_TRUE(dom.Get("flag", flag));
    EXPECT_TRUE(flag);
    EXPECT_EQ(U(dom.GetWxString("text")), "a=b|c \xc3\xa9");

    // Absent or not a number: false, value untouched.
    number = 5;
    EXPECT_FALSE(dom.Get("missing", number));
    EXPECT_FALSE(dom.Get("text", number));
    dom.Set("big", std::string("99999999999999999999"));
    EXPECT_FALSE(dom.Get("big", number));
    dom.Set("tail", std::string("12abc"));
    EXPECT_FALSE(dom.Get("tail", number));
    dom.Set("empty", std::string(""));
    EXPECT_FALSE(dom.Get("empty", number));
    EXPECT_EQ(number, 5);
    dom.Set("spaced", std::string(" 42 "));
    EXPECT_TRUE(dom.Get("spaced", number));
    EXPECT_EQ(number, 42);
    EXPECT_EQ(dom.Get("missing"), "");

    // Overwrite, then remove.
    dom.Set("n", i64{7});
    EXPECT_TRUE(dom.Get("n", number));
    EXPECT_EQ(number, 7);
    EXPECT_TRUE(dom.Remove("n"));
    EXPECT_FALSE(dom.Remove("n"));
    EXPECT_FALSE(dom.Get("n", number));
}

TEST_F(DomTest, BooleansAcceptOneZeroTrueFalseInAnyCase) {
    NorvCore::CDom dom(":memory:");
    const struct {
        const char* text;
        bool known;
        bool value;
    } cases[] = {{"1", true, true},      {"0", true, false},     {"TRUE", true, true},
                 {"False", true, false}, {"yes", false, false},  {"2", false, false},
                 {"", false, false},     {"truex", false, false}};
    for (const auto& c : cases) {
        dom.Set("b", std::string(c.text));
        bool value = !c.value;
        EXPECT_EQ(dom.Get("b", value), c.known) << c.text;
        if (c.known) {
            EXPECT_EQ(value, c.value) << c.text;
        }
    }
    dom.Set("b", false);
    bool value = true;
    EXPECT_TRUE(dom.Get("b", value));
    EXPECT_FALSE(value);
}

TEST_F(DomTest, ValuesAndEventsSurviveAReopen) {
    TempFolder folder;
    const std::string path = folder.File("host.db");
    {
        NorvCore::CDom dom(path);
        ASSERT_TRUE(dom.IsOpen());
        dom.Set("norvp.vexil.lastline.packet", i64{1234567890123});
        dom.Set("norv.mode.loadtest", true);
        dom.AgentEventWrite(6001, "first");
        dom.AgentEventWrite(3300, "second");
    }
    NorvCore::CDom dom(path);
    i64 line = 0;
    EXPECT_TRUE(dom.Get("norvp.vexil.lastline.packet", line));
    EXPECT_EQ(line, 1234567890123);
    bool loadtest = false;
    EXPECT_TRUE(dom.Get("norv.mode.loadtest", loadtest));
    EXPECT_TRUE(loadtest);
    const auto events = dom.AgentEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].number, 6001);
    EXPECT_EQ(U(events[0].detail), "first");
    EXPECT_EQ(events[1].number, 3300);
    dom.ClearAgentEvents();
    EXPECT_TRUE(dom.AgentEvents().empty());
}

TEST_F(DomTest, UnopenableStoreStaysUsable) {
    NorvCore::CDom dom("/nonexistent-norv-folder/sub/host.db");
    EXPECT_FALSE(dom.IsOpen());
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Error: Can't open the host store /nonexistent-norv-folder", 0), 0u)
        << lines[0];

    EXPECT_EQ(dom.Get("k"), "");
    i64 number = 3;
    EXPECT_FALSE(dom.Get("k", number));
    EXPECT_FALSE(dom.Set("k", i64{1}));
    EXPECT_FALSE(dom.Set("k", true));
    EXPECT_FALSE(dom.Remove("k"));
    wxString folder = "untouched";
    EXPECT_TRUE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "/var/lib/norv");
    dom.AgentEventWrite(6009, "");
    EXPECT_TRUE(dom.AgentEvents().empty());
    // Conditions do not need the store.
    EXPECT_EQ(dom.ConditionRaise("c"), 1u);
    // The event still reached the operator log, and nothing else was logged.
    const auto later = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0], "Warning: Agent event 6009: ");
}

TEST_F(DomTest, NotADatabaseIsUnopenable) {
    TempFolder folder;
    const std::string path = folder.File("junk.db");
    FILE* file = fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("this is not an SQLite database, just text that is long enough to be read\n", file);
    fclose(file);
    NorvCore::CDom dom(path);
    EXPECT_FALSE(dom.IsOpen());
    EXPECT_FALSE(dom.Set("k", i64{1}));
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("not a database"), std::string::npos) << lines[0];
}

TEST_F(DomTest, BaseFolderDefaultConfiguredAndRelative) {
    NorvCore::CDom dom(":memory:");
    wxString folder;
    EXPECT_TRUE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "/var/lib/norv");
    dom.Set("norv.baseFolder", std::string("/srv/norv"));
    EXPECT_TRUE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "/srv/norv");
    dom.Set("norv.baseFolder", std::string("relative/norv"));
    folder = "kept";
    EXPECT_FALSE(dom.BaseFolder(folder));
    EXPECT_EQ(U(folder), "kept");
}

TEST_F(DomTest, ConditionsCountRaises) {
    NorvCore::CDom dom(":memory:");
    u64 count = 99;
    EXPECT_FALSE(dom.ConditionQuery("app.configUpdated", count, nullptr, nullptr));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(dom.ConditionRaise("app.configUpdated"), 1u);
    EXPECT_EQ(dom.ConditionRaise("app.configUpdated"), 2u);
    EXPECT_EQ(dom.ConditionRaise("norv.HeartbeatNow"), 1u);
    u32 low = 0;
    u32 high = 9;
    EXPECT_TRUE(dom.ConditionQuery("app.configUpdated", count, &low, &high));
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(low, 2u);
    EXPECT_EQ(high, 0u);
}

TEST_F(DomTest, ConditionWaitTimesOutOrSeesARaise) {
    NorvCore::CDom dom(":memory:");
    auto before = Clock::now();
    EXPECT_FALSE(dom.ConditionWait("c", 0, 30));
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
    // Already moved past lastSeen: no wait at all.
    EXPECT_TRUE(dom.ConditionWait("c", 0, 60000));
    EXPECT_FALSE(dom.ConditionWait("c", 1, 0));
}

TEST_F(DomTest, ShouldExitWaitsAndWakesOnRequest) {
    NorvCore::CDom dom(":memory:");
    bool woken = true;
    auto before = Clock::now();
    EXPECT_FALSE(dom.ShouldExit(30, &woken));
    EXPECT_FALSE(woken);
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(29));
    EXPECT_FALSE(dom.ShouldExit(0, nullptr));

    std::thread requester([&dom] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom.RequestExit();
    });
    before = Clock::now();
    EXPECT_TRUE(dom.ShouldExit(60000, &woken));
    EXPECT_TRUE(woken);
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    requester.join();
    EXPECT_TRUE(dom.ShouldExit(60000, nullptr));

    // A pending condition wait ends on the exit request too.
    before = Clock::now();
    EXPECT_FALSE(dom.ConditionWait("never", 0, 60000));
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
}

TEST_F(DomTest, EventsAreFormattedWithNarrowArgumentsAndKeptInOrder) {
    NorvCore::CDom dom(":memory:");
    dom.DoAgentEventWrite(6007, L"%.128s|%.128s|%.128s", "/a", "/b", "denied");
    dom.DoAgentEventWrite(1001, L"%.64s|%08x (%.128s)", "norvi_add_blacklist", 5u, "busy");
    dom.DoAgentEventWrite(6009, L"");
    const auto events = dom.AgentEvents();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].number, 6007);
    EXPECT_EQ(U(events[0].detail), "/a|/b|denied");
    EXPECT_EQ(U(events[1].detail), "norvi_add_blacklist|00000005 (busy)");
    EXPECT_EQ(U(events[2].detail), "");
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Warning: Agent event 6007: /a|/b|denied");
}

TEST_F(DomTest, LogAgentEventGoesToTheNewestLiveDom) {
    NorvCore::CDom::DoLogAgentEvent(0, 3300, L"%.128s", "nobody");
    auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Warning: Agent event 3300: nobody");

    NorvCore::CDom older(":memory:");
    {
        NorvCore::CDom newer(":memory:");
        EXPECT_EQ(NorvCore::CDom::Current(), &newer);
        NorvCore::CDom::DoLogAgentEvent(0, 6005, L"%.128s|%.128s", "a", "b");
        ASSERT_EQ(newer.AgentEvents().size(), 1u);
        EXPECT_EQ(U(newer.AgentEvents()[0].detail), "a|b");
        EXPECT_TRUE(older.AgentEvents().empty());
    }
    EXPECT_EQ(NorvCore::CDom::Current(), &older);
    NorvCore::CDom::DoLogAgentEvent(0, 6006, L"%d", 12);
    ASSERT_EQ(older.AgentEvents().size(), 1u);
    EXPECT_EQ(older.AgentEvents()[0].number, 6006);
    EXPECT_EQ(U(older.AgentEvents()[0].detail), "12");
}

TEST_F(DomTest, ConcurrentUseFromManyThreads) {
    TempFolder folder;
    NorvCore::CDom dom(folder.File("busy.db"));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&dom, t] {
            for (int i = 0; i < 50; ++i) {
                dom.Set("key" + std::to_string(t), i64{i});
                i64 value = -1;
                dom.Get("key" + std::to_string(t), value);
                dom.ConditionRaise("c");
                NorvCore::CDom::DoLogAgentEvent(0, 7000 + t, L"%d", i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    u64 count = 0;
    dom.ConditionQuery("c", count, nullptr, nullptr);
    EXPECT_EQ(count, 200u);
    EXPECT_EQ(dom.AgentEvents().size(), 200u);
    for (int t = 0; t < 4; ++t) {
        i64 value = -1;
        EXPECT_TRUE(dom.Get("key" + std::to_string(t), value));
        EXPECT_EQ(value, 49);
    }
    NorvCore::TakeOperatorLogLines();
}

}  // namespace
