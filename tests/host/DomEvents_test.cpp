// CDom's event table stays within its bounds, by count and by age, however
// many events come, and counts what it dropped.
#include <sqlite3.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "host/Dom.h"
#include "host/Trace.h"
#include "tests/TempFolder.h"

namespace {

// The flood: a million events, a tenth of that in an instrumented build,
// where each costs several times more.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int kFlood = 100000;
#else
const int kFlood = 1000000;
#endif

class DomEventsTest : public testing::Test {
protected:
    // A flood must not print a million lines.
    void SetUp() override { m_Echo = NorvCore::SetOperatorLogEcho(nullptr); }
    void TearDown() override {
        NorvCore::TakeOperatorLogLines();
        NorvCore::SetOperatorLogEcho(m_Echo);
    }

private:
    FILE* m_Echo = nullptr;
};

TEST_F(DomEventsTest, AFloodLeavesTheTableAtItsCountBound) {
    struct Case {
        const char* maxCount;  // the setting, null for none
        int events;
        size_t kept;
    };
    const Case cases[] = {
        {nullptr, 10005, 10000},  // the default bound
        {"-3", 10001, 10000},     // a bad setting is the default
        {"1000", kFlood, 1000},   // the flood
        {"0", 3, 0},              // nothing kept at all
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.maxCount != nullptr ? c.maxCount : "default");
        NorvCore::CDom dom(":memory:");
        if (c.maxCount != nullptr) {
            dom.Set("norv.events.maxCount", std::string(c.maxCount));
        }
        for (int i = 0; i < c.events; ++i) {
            dom.AgentEventWrite(7001, wxString::Format("%d", i));
        }
        const auto events = dom.AgentEvents();
        ASSERT_EQ(c.kept, events.size());
        EXPECT_EQ(u64(c.events) - c.kept, dom.AgentEventsDropped());
        if (c.kept > 0) {
            // The newest stay, in order.
            EXPECT_EQ(std::to_string(c.events - 1), events.back().detail.ToStdString());
            EXPECT_EQ(std::to_string(c.events - c.kept), events.front().detail.ToStdString());
        }
        NorvCore::TakeOperatorLogLines();
    }
}

TEST_F(DomEventsTest, OldEventsGoAndTheCountSurvivesAReopen) {
    TempFolder folder;
    const std::string path = folder.Path() + "/store.db";
    {
        // A store made before events had a time.
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
        ASSERT_EQ(SQLITE_OK,
                  sqlite3_exec(db,
                               "CREATE TABLE events(seq INTEGER PRIMARY KEY AUTOINCREMENT, "
                               "number INTEGER NOT NULL, detail TEXT NOT NULL);"
                               "INSERT INTO events(number, detail) VALUES(1, 'old')",
                               nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    {
        NorvCore::CDom dom(path);
        ASSERT_TRUE(dom.IsOpen());
        dom.Set("norv.events.maxAgeSeconds", i64(1));
        // The event from before the upgrade is older than any bound.
        dom.AgentEventWrite(2, "a");
        dom.AgentEventWrite(3, "b");
        ASSERT_EQ(2u, dom.AgentEvents().size());
        EXPECT_EQ(1u, dom.AgentEventsDropped());
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        dom.AgentEventWrite(4, "c");
    }
    NorvCore::CDom dom(path);
    const auto events = dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(4, events[0].number);
    EXPECT_EQ(3u, dom.AgentEventsDropped());
}

}  // namespace
