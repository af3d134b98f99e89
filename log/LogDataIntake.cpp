// LogData: the path of one driver record through the log object: the private
// copy, rendering, the decision whether the record is logged, analysis, and
// the handover to the cache. The record flow is also what notices updates of
// the agent configuration.
#include <algorithm>

#include "config/ConfigUtils.h"
#include "host/Trace.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

namespace VEXIL {

namespace {

constexpr i16 kProtectionReportOn = -5000;
constexpr i16 kProtectionReportOff = -5010;

}  // namespace

bool LogData::WriteLogData(const DriverLogEntry* record, const void* data, u32 dataLen,
                           const u8* packet, u32 packetLen) {
    NORV_TRACE(L"vexil", wxString::Format("WriteLogData(packetDataLen=%u)", dataLen));
    RecordCopy copy;
    if (!copy.Fill(record, data, dataLen)) {
        NORV_TRACE(L"vexil",
                   wxString::Format("WriteLogData() - a trailing block of %u bytes does not fit "
                                    "the working copy",
                                    dataLen));
        return false;
    }
    DriverLogEntry* entry = copy.Entry();
    entry->set_packet_data_len(u16(std::min<u32>(entry->packet_data_len(), packetLen)));
    entry->set_packet_data(packet);

    std::string line;
    u64 firstTimeUsec = 0;
    u64 lastTimeUsec = 0;
    if (!BinaryToAscii(entry, line, firstTimeUsec, lastTimeUsec) || ConfigFailed()) {
        return false;
    }
    if (!ProcessLogData(line, &firstTimeUsec, entry) || ConfigFailed()) {
        return false;
    }
    // The count of the record as handed in, not of the working copy.
    return CacheRecord(line, firstTimeUsec, lastTimeUsec, record->count());
}

bool LogData::ConfigFailed() const {
    return m_ConfigUtils != nullptr && m_ConfigUtils->HasPendingError();
}

bool LogData::ProcessLogData(const std::string& line, const u64* firstTimeUsec,
                             DriverLogEntry* copy) {
    if (m_TraceEnabled) {
        NORV_TRACE(L"vexil", wxString::Format("ProcessLogData() for %.32s", m_LogName));
    }
    if (line.empty()) {
        return false;
    }
    bool result = true;
    if (!ProcessLogEntry(line, firstTimeUsec, copy)) {
        NORV_TRACE(L"vexil", "ProcessLogEntry returned false");
        result = false;
    }
    if (ConfigFailed()) {
        return false;
    }
    // The analysis sees every record, also one that is not logged.
    if (!AnalyzeLogEntry(line, firstTimeUsec, copy)) {
        NORV_TRACE(L"vexil", "AnalyzeLogEntry returned false");
        result = false;
    }
    NORV_TRACE(L"vexil", wxString::Format("ProcessLogEntry returning %d", int(result)));
    return result;
}

bool LogData::ProcessLogEntry(const std::string& /*line*/, const u64* /*firstTimeUsec*/,
                              DriverLogEntry* copy) {
    const bool packetRecord = copy->isPacketRecord();
    if (m_TraceEnabled) {
        NORV_TRACE(L"vexil", "LogData::ProcessLogEntry()");
    }
    u64 updateCount = 0;
    // Made once: the name is too long for a string's inline buffer, and this
    // runs for every record.
    static const std::string kConfigUpdated = "app.configUpdated";
    m_Dom->ConditionQuery(kConfigUpdated, updateCount, nullptr, nullptr);
    if (updateCount != m_LastConfigUpdate) {
        // Stored first: a configuration that cannot be read is not tried
        // again until the next update.
        m_LastConfigUpdate = updateCount;
        if (m_TraceEnabled) {
            NORV_TRACE(L"vexil",
                       "LogData::ProcessLogEntry() - getting updated settings from config.");
        }
        if (!ReadConfiguration(packetRecord)) {
            return false;
        }
    }

    const i16 reason = copy->reason();
    if (reason == kProtectionReportOn || reason == kProtectionReportOff) {
        const i32 state = reason == kProtectionReportOn ? 1 : 2;
        if (state != m_VmProtection) {
            m_VmProtection = state;
            m_Dom->Set("VmProtection", i64(state));
            m_Dom->ConditionRaise("norv.HeartbeatNow");
        }
        return false;
    }
    if (reason == DriverLogEntry::kReasonConnectionClosedNormal ||
        reason == DriverLogEntry::kReasonConnectionClosedOther) {
        return false;  // connection close notifications are not logged
    }
    if (copy->log_flags() & DriverLogEntry::kLogDoNotLog) {
        if (!packetRecord) {
            NORV_TRACE(L"vexil", wxString::Format("Ignoring payload log id=%d", int(copy->id())));
        }
        return false;
    }
    // No family check: for an IPv6 record this tests a middle word of the
    // source address, as the driver expects.
    if (IpInList(copy->iph_src(), m_IgnoreIpList)) {
        if (m_TraceEnabled) {
            const u8* b = copy->iph_src_bytes();
            NORV_TRACE(L"vexil",
                       wxString::Format("Ignoring log from %d.%d.%d.%d", b[0], b[1], b[2], b[3]));
        }
        return false;
    }
    return true;
}

bool LogData::ReadConfiguration(bool packetRecord) {
    if (m_ConfigUtils == nullptr) {
        NORV_TRACE(L"vexil", "Could not get config map");
        return false;
    }
    u32 size = 0;
    u32 keep = 0;
    u64 cacheSize = 0;
    u32 cacheLifetime = 0;
    u32 cacheStaletime = 0;
    IpList* ignoreList = m_IgnoreIpList;
    const bool read = m_ConfigUtils->getAgentConfigurationPacketFilterLog(
        size, keep, ignoreList, cacheSize, cacheLifetime, cacheStaletime);
    delete ExchangeList(m_IgnoreIpList, ignoreList);
    if (!read) {
        return false;
    }
    if (i32(size) > 0) {
        m_LogFileSizeKB = i32(size);
    }
    if (i32(keep) > 0) {
        m_NumberOfOldCopies = i32(keep) - 1;  // keep counts the live file too
    }
    SetCacheLimits(cacheSize, cacheLifetime, cacheStaletime);

    // A payload record leaves the analysis configuration as it was, until a
    // packet record notices the next update.
    if (!packetRecord) {
        return true;
    }
    return ReadAnalysisConfiguration();
}

bool LogData::ReadAnalysisConfiguration() {
    IpList* destList;
    IpList* whitelist;
    {
        NorvCore::CCriticalSectionLocker lock(m_DestIpListLock);
        destList = m_DestIpList;
    }
    {
        NorvCore::CCriticalSectionLocker lock(m_WhitelistIpListLock);
        whitelist = m_WhitelistIpList;
    }
    u32 blockSeconds[kProbeTypeCount];
    {
        NorvCore::CCriticalSectionLocker lock(m_ProbeConfigLock);
        for (int i = 0; i < kProbeTypeCount; ++i) {
            blockSeconds[i] = u32(m_BlockAttackerSeconds[i]);
        }
    }
    u32 enabled = 0;
    u32 notify = 0;
    const bool read = m_ConfigUtils->getAgentConfigurationTrafficAnalysis(
        destList, whitelist, blockSeconds, enabled, notify);
    IpList* replaced[2];
    {
        NorvCore::CCriticalSectionLocker lock(m_DestIpListLock);
        replaced[0] = ExchangeList(m_DestIpList, destList);
    }
    {
        NorvCore::CCriticalSectionLocker lock(m_WhitelistIpListLock);
        replaced[1] = ExchangeList(m_WhitelistIpList, whitelist);
    }
    delete replaced[0];
    delete replaced[1];
    NorvCore::CCriticalSectionLocker lock(m_ProbeConfigLock);
    for (int i = 0; i < kProbeTypeCount; ++i) {
        m_BlockAttackerSeconds[i] = i32(blockSeconds[i]);
    }
    m_ProbeEnabled = std::bitset<kProbeTypeCount>(enabled);
    m_ProbeNotifyImmediately = std::bitset<kProbeTypeCount>(notify);
    return read;
}

IpList* LogData::ExchangeList(IpList*& field, IpList* replacement) {
    if (field == replacement) {
        return nullptr;
    }
    IpList* const old = field;
    field = replacement;
    return old;
}

void LogData::SetCacheLimits(u64 cacheSize, u32 cacheLifetime, u32 cacheStaletime) {
    if (cacheSize == 0) {
        cacheLifetime = 0;
        cacheStaletime = 0;
    } else {
        cacheSize = std::min<u64>(cacheSize, 1024);
        cacheLifetime = std::clamp<u32>(cacheLifetime, 60000, 3600000);
        cacheStaletime = cacheStaletime < 10000 ? 10000 : std::min(cacheStaletime, cacheLifetime);
    }
    {
        NorvCore::CCriticalSectionLocker lock(m_CacheLock);
        m_CacheMaxRecords = cacheSize;
        m_CacheLifetimeMsec = cacheLifetime;
        m_CacheStaleMsec = cacheStaletime;
    }
    // Shrink to the new size, one eviction per pass, while the flush succeeds.
    while (FlushBufferedData(false)) {
        NorvCore::CCriticalSectionLocker lock(m_CacheLock);
        if (m_LogRecordMap.size() <= cacheSize) {
            break;
        }
    }
}

}  // namespace VEXIL
