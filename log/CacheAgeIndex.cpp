#include "log/CacheAgeIndex.h"

#include <iterator>
#include <utility>

namespace VEXIL {

namespace {

// The element with the largest now - tick: the first at or after now + 1 in
// raw order, or the first of all when none lies there.
template <typename Iterator>
Iterator CircularSuccessor(Iterator atOrAfter, Iterator begin, Iterator end) {
    return atOrAfter != end ? atOrAfter : begin;
}

}  // namespace

void CCacheAgeIndex::Add(const std::string* key, u32 firstTick, u32 lastTick) {
    m_ByTicks.insert(Entry{Ticks{firstTick, lastTick}, key});
    m_LastTicks.insert(lastTick);
}

void CCacheAgeIndex::Touch(const std::string* key, u32 firstTick, u32 oldLastTick,
                           u32 newLastTick) {
    if (oldLastTick == newLastTick) {
        return;
    }
    auto entry = m_ByTicks.extract(Entry{Ticks{firstTick, oldLastTick}, key});
    if (!entry.empty()) {
        entry.value().ticks.last = newLastTick;
        m_ByTicks.insert(std::move(entry));
    }
    auto last = m_LastTicks.extract(oldLastTick);
    if (!last.empty()) {
        last.value() = newLastTick;
        m_LastTicks.insert(std::move(last));
    }
}

void CCacheAgeIndex::Remove(const std::string* key, u32 firstTick, u32 lastTick) {
    m_ByTicks.erase(Entry{Ticks{firstTick, lastTick}, key});
    const auto last = m_LastTicks.find(lastTick);
    if (last != m_LastTicks.end()) {
        m_LastTicks.erase(last);
    }
}

u32 CCacheAgeIndex::LargestAge(u32 now) const {
    if (m_ByTicks.empty()) {
        return 0;
    }
    const auto oldest = CircularSuccessor(m_ByTicks.lower_bound(Ticks{now + 1, 0}),
                                          m_ByTicks.begin(), m_ByTicks.end());
    return now - oldest->ticks.first;
}

u32 CCacheAgeIndex::LargestIdle(u32 now) const {
    if (m_LastTicks.empty()) {
        return 0;
    }
    const auto quietest =
        CircularSuccessor(m_LastTicks.lower_bound(now + 1), m_LastTicks.begin(), m_LastTicks.end());
    return now - *quietest;
}

const std::string* CCacheAgeIndex::Oldest(u32 now) const {
    if (m_ByTicks.empty()) {
        return nullptr;
    }
    // The records of the largest age share one first tick.
    const u32 first = CircularSuccessor(m_ByTicks.lower_bound(Ticks{now + 1, 0}), m_ByTicks.begin(),
                                        m_ByTicks.end())
                          ->ticks.first;
    const auto groupBegin = m_ByTicks.lower_bound(Ticks{first, 0});
    const auto groupEnd = m_ByTicks.upper_bound(Ticks{first, ~u32(0)});
    // Among them the largest idle time, and of equals the greatest key: the
    // last entry of those ticks.
    const u32 last =
        CircularSuccessor(m_ByTicks.lower_bound(Ticks{first, now + 1}), groupBegin, groupEnd)
            ->ticks.last;
    return std::prev(m_ByTicks.upper_bound(Ticks{first, last}))->key;
}

}  // namespace VEXIL
