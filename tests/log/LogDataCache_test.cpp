// The coalescing cache against a plain model of its walk: on a random
// sequence of events, flushes and clock steps (across the wrap of the tick
// count, and backwards), the lines written, their order and counts, and so
// every choice of the record to evict, are the walk's.
#include <sys/types.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/Dom.h"
#include "host/Ticks.h"
#include "log/LogData.h"
#include "tests/TempFolder.h"

namespace {

std::string g_Written;

ssize_t Capture(int, const void* bytes, size_t length) {
    g_Written.append(static_cast<const char*>(bytes), length);
    return ssize_t(length);
}

// "text/count" of each written line, in order.
std::vector<std::string> WrittenRecords() {
    std::vector<std::string> records;
    std::istringstream lines(g_Written);
    std::string line;
    while (std::getline(lines, line)) {
        // date, time, text, count, last time, first time
        std::vector<std::string> fields;
        std::istringstream columns(line);
        std::string field;
        while (std::getline(columns, field, ',')) {
            fields.push_back(field);
        }
        records.push_back(fields.size() == 6 ? fields[2].substr(1) + "/" + fields[3].substr(1)
                                             : "bad line: " + line);
    }
    return records;
}

// The cache as a walk over all records on every flush.
class WalkModel {
public:
    WalkModel(size_t maxRecords, u32 lifetime, u32 stale)
        : m_Max(maxRecords), m_Lifetime(lifetime), m_Stale(stale) {}

    void Record(const std::string& text, u32 count, u32 now) {
        auto found = m_Records.find(text);
        if (found != m_Records.end()) {
            found->second.count += count;
            found->second.lastTick = now;
        } else {
            m_Records[text] = Value{now, now, count};
        }
        Flush(false, now);
    }

    void Flush(bool force, u32 now) {
        auto oldest = m_Records.end();
        u32 largestAge = 0, largestIdle = 0;
        for (auto it = m_Records.begin(); it != m_Records.end();) {
            const u32 age = now - it->second.firstTick;
            const u32 idle = now - it->second.lastTick;
            if (!force) {
                if (age > largestAge || (age == largestAge && idle >= largestIdle)) {
                    oldest = it;
                    largestAge = age;
                    largestIdle = idle;
                }
                if (age < m_Lifetime && idle < m_Stale) {
                    ++it;
                    continue;
                }
            }
            Write(it);
            if (it == oldest) {
                oldest = m_Records.end();
                largestAge = largestIdle = 0;
            }
            it = m_Records.erase(it);
        }
        if (m_Records.size() > m_Max && oldest != m_Records.end()) {
            Write(oldest);
            m_Records.erase(oldest);
        }
    }

    std::vector<std::string> written;

private:
    struct Value {
        u32 firstTick;
        u32 lastTick;
        u32 count;
    };
    void Write(std::map<std::string, Value>::iterator record) {
        written.push_back(record->first + "/" + std::to_string(record->second.count));
    }

    std::map<std::string, Value> m_Records;
    const size_t m_Max;
    const u32 m_Lifetime;
    const u32 m_Stale;
};

TEST(LogDataCache, EvictsAndWritesAsTheWalkDoes) {
    TempFolder folder;
    NorvCore::CDom dom(":memory:");
    VEXIL::LogData log(dom);
    log.SetLogFilePath(folder.Path());
    log.SetWriteFunction(&Capture);
    g_Written.clear();
    // Just before the wrap of the tick count.
    u32 now = 0xFFFFFFFFu - 30000;
    NorvCore::SetManualTicks(now);
    log.SetCacheLimits(8, 60000, 10000);
    WalkModel model(8, 60000, 10000);

    std::mt19937 random(12);
    for (int step = 0; step < 6000; ++step) {
        const u32 dice = random() % 100;
        if (dice < 40) {
            // Same tick: ties of age and idle time.
        } else if (dice < 92) {
            now += 1 + random() % 2500;
        } else if (dice < 98) {
            now += 5000 + random() % 70000;
        } else {
            now -= 1 + random() % 100000;
        }
        NorvCore::SetManualTicks(now);
        if (random() % 10 == 0) {
            log.FlushBufferedData(false);
            model.Flush(false, now);
        } else {
            const std::string text = "record " + std::to_string(random() % 40);
            const u32 count = random() % 3;
            log.CacheRecord(text, 1700000000000000, 1700000000000000, count);
            model.Record(text, count, now);
        }
    }
    log.FlushBufferedData(true);
    model.Flush(true, now);
    NorvCore::UseRealTicks();

    EXPECT_GT(model.written.size(), 3000u);
    EXPECT_EQ(model.written, WrittenRecords());
}

}  // namespace
