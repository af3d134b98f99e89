// CCacheAgeIndex: the records of the coalescing cache ordered by their ticks.
//
// A flush must know whether any record has reached its life time or gone
// stale, and, when the cache is over its size, which record is the oldest.
// Walking the whole cache on every event answers both; this index answers
// them in logarithmic time. Ages and idle times are differences of the
// free-running 32-bit tick count, so "largest" is taken in that unsigned
// arithmetic at the moment asked, which makes the answers hold across the
// wrap of the count, whatever order the ticks came in.
//
// Not thread-safe: its owner guards it with the lock of the cache
// (LogData::m_CacheLock). Keys are pointers to the cache's own key strings,
// which stay in place while their records are cached.
#pragma once

#include <set>
#include <string>

#include "host/Types.h"

namespace VEXIL {

class CCacheAgeIndex {
public:
    void Add(const std::string* key, u32 firstTick, u32 lastTick);
    // A merge moved a record's last tick.
    void Touch(const std::string* key, u32 firstTick, u32 oldLastTick, u32 newLastTick);
    void Remove(const std::string* key, u32 firstTick, u32 lastTick);

    // The largest now - firstTick and now - lastTick of all records; 0 when
    // there are none.
    u32 LargestAge(u32 now) const;
    u32 LargestIdle(u32 now) const;
    // The record with the largest age, among those the largest idle time,
    // among those the greatest key: the one that a walk in key order keeping
    // the last of equals finds. Null when there are none.
    const std::string* Oldest(u32 now) const;

private:
    struct Ticks {
        u32 first;
        u32 last;
    };
    struct Entry {
        Ticks ticks;
        const std::string* key;
    };
    // By first tick, then last tick, then key; a bare Ticks compares with
    // the ticks of an entry only.
    struct Order {
        using is_transparent = void;
        static bool Less(const Ticks& a, const Ticks& b) {
            return a.first != b.first ? a.first < b.first : a.last < b.last;
        }
        bool operator()(const Entry& a, const Entry& b) const {
            if (Less(a.ticks, b.ticks)) {
                return true;
            }
            return !Less(b.ticks, a.ticks) && *a.key < *b.key;
        }
        bool operator()(const Entry& a, const Ticks& b) const { return Less(a.ticks, b); }
        bool operator()(const Ticks& a, const Entry& b) const { return Less(a, b.ticks); }
    };

    std::set<Entry, Order> m_ByTicks;
    std::multiset<u32> m_LastTicks;
};

}  // namespace VEXIL
