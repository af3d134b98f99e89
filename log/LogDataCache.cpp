// LogData: the coalescing cache. A rendered line waits in m_LogRecordMap,
// where repeats only raise its count and widen its time span, until it has
// grown old, gone quiet, or must make room; then it becomes one file line.
// m_CacheIndex orders the same records by their ticks, so that the flush
// after each event walks the map only when something is due.
#include <cinttypes>
#include <ctime>

#include <wx/log.h>

#include "host/TextHelpers.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "log/LogData.h"

namespace VEXIL {

bool LogData::CacheRecord(const std::string& line, u64 firstTimeUsec, u64 lastTimeUsec, u32 count) {
    {
        NorvCore::CCriticalSectionLocker lock(m_CacheLock);
        const u32 now = NorvCore::SystemTickCount();
        auto found = m_LogRecordMap.find(line);
        if (found != m_LogRecordMap.end()) {
            LogRecordValue& value = found->second;
            m_CacheIndex.Touch(&found->first, value.firstTick, value.lastTick, now);
            value.count += count;
            value.lastTick = now;
            // Merging never makes a record younger: firstTick stays.
            value.firstTime = std::min(value.firstTime, i64(firstTimeUsec));
            value.lastTime = std::max(value.lastTime, i64(lastTimeUsec));
            if (m_TraceEnabled) {
                NORV_TRACE(L"vexil",
                           wxString::Format("CacheRecord() - incremented count to %u for cached "
                                            "%.32s record that is %lu msec old",
                                            value.count, m_LogName,
                                            (unsigned long)(now - value.firstTick)));
            }
        } else {
            const auto added = m_LogRecordMap.emplace(
                line, LogRecordValue{now, i64(firstTimeUsec), now, i64(lastTimeUsec), count});
            m_CacheIndex.Add(&added.first->first, now, now);
            if (m_TraceEnabled) {
                NORV_TRACE(L"vexil", wxString::Format("CacheRecord() - added %.32s record to "
                                                      "cache. Size of cache is now %u records",
                                                      m_LogName, unsigned(m_LogRecordMap.size())));
            }
        }
    }
    return FlushBufferedData(false);
}

bool LogData::FlushBufferedData(bool force) {
    NorvCore::CCriticalSectionLocker lock(m_CacheLock);
    const u32 now = NorvCore::SystemTickCount();
    bool result = true;
    if (!force && m_CacheIndex.LargestAge(now) < m_CacheLifetimeMsec &&
        m_CacheIndex.LargestIdle(now) < m_CacheStaleMsec) {
        // Nothing is due: the walk would only name the oldest record, and
        // the index names the same one.
        if (m_LogRecordMap.size() > m_CacheMaxRecords) {
            const auto oldest = m_LogRecordMap.find(*m_CacheIndex.Oldest(now));
            if (!WriteRecord(oldest->first, oldest->second)) {
                result = false;
            }
            EraseRecord(oldest);
        }
    } else if (!FlushWalk(force, now)) {
        result = false;
    }
    NorvCore::CCriticalSectionLocker fileLock(m_FileLock);
    if (!CloseLogFile()) {
        result = false;
    }
    return result;
}

bool LogData::FlushWalk(bool force, u32 now) {
    auto oldest = m_LogRecordMap.end();
    u32 largestAge = 0;
    u32 largestIdle = 0;
    bool result = true;

    for (auto it = m_LogRecordMap.begin(); it != m_LogRecordMap.end();) {
        // Unsigned 32-bit differences make the wrap of the tick harmless.
        const u32 age = now - it->second.firstTick;
        const u32 idle = now - it->second.lastTick;
        if (!force) {
            if (age > largestAge || (age == largestAge && idle >= largestIdle)) {
                oldest = it;
                largestAge = age;
                largestIdle = idle;
            }
            if (age < m_CacheLifetimeMsec && idle < m_CacheStaleMsec) {
                ++it;
                continue;
            }
        }
        // Due: a line that cannot be written is lost all the same.
        if (!WriteRecord(it->first, it->second)) {
            result = false;
        }
        if (it == oldest) {
            oldest = m_LogRecordMap.end();
            largestAge = 0;
            largestIdle = 0;
        }
        it = EraseRecord(it);
    }

    if (m_LogRecordMap.size() > m_CacheMaxRecords) {
        if (oldest != m_LogRecordMap.end()) {
            if (!WriteRecord(oldest->first, oldest->second)) {
                result = false;
            }
            EraseRecord(oldest);
        } else {
            wxLogWarning(
                "FlushBufferedData() - %.32s cache is too big, but we didn't locate the "
                "oldest record!",
                m_LogName);
            wxASSERT_MSG(oldest != m_LogRecordMap.end(),
                         "oldestRecord != this->m_LogRecordMap.end()");
        }
    }
    return result;
}

LogData::RecordMap::iterator LogData::EraseRecord(RecordMap::iterator record) {
    m_CacheIndex.Remove(&record->first, record->second.firstTick, record->second.lastTick);
    return m_LogRecordMap.erase(record);
}

bool LogData::WriteRecord(const std::string& line, const LogRecordValue& value) {
    NorvCore::CCriticalSectionLocker lock(m_FileLock);
    if (!OpenLogFile()) {
        return false;
    }
    if (m_WriteVerbatim) {
        return WriteRawData(line.size(), line.data());
    }
    char head[64];
    head[0] = '\0';
    const time_t seconds = time_t(value.firstTime / 1000000);
    struct tm local;
    if (localtime_r(&seconds, &local) != nullptr) {
        strftime(head, sizeof head, "%Y/%m/%d, %H:%M:%S, ", &local);
    }
    char tail[64];
    snprintf_safe(tail, sizeof tail, ", %u, %" PRIu64 ", %" PRIu64, value.count,
                  u64(value.lastTime), u64(value.firstTime));
    // One buffer for every line, so that a line costs no allocation once it
    // has grown to the longest line seen.
    m_LineText.assign(head).append(line).append(tail).append("\r\n");
    return WriteRawData(m_LineText.size(), m_LineText.data());
}

}  // namespace VEXIL
