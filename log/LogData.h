// LogData: the one object of the log pipeline.
//
// A script makes one per family of log files, with the host's CDom, and feeds
// it driver records. The object renders each record as a text line, merges
// repeats in a bounded cache, writes due lines to a rotating family of files,
// reads them back by time span, renders syslog text, and runs the traffic
// analysis on every record. It starts no thread: every entry runs on its
// caller's thread, and each group of state has its own lock, named on the
// fields below. m_CacheLock is always taken before m_FileLock;
// m_TerminatedFlowsLock is taken outside the other analysis locks.
//
// Fields without a lock are owned by the Lua thread of the script that made
// the object: the record path and the configuration it reads.
#pragma once

#include <bitset>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

#include <wx/arrstr.h>
#include <wx/file.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "analysis/AnalysisTypes.h"
#include "config/IpList.h"
#include "host/Dom.h"
#include "host/Syslogger.h"
#include "host/Ticks.h"
#include "host/Types.h"
#include "host/norvi.h"
#include "log/DriverLogEntry.h"

namespace VEXIL {

class ConfigUtils;
class LogLineSink;
struct ReadBackSpan;

// One record waiting in the coalescing cache.
struct LogRecordValue {
    u32 firstTick;  // tick when the record entered the cache
    i64 firstTime;  // smallest first time stamp merged, microseconds
    u32 lastTick;   // tick of the latest merge
    i64 lastTime;   // largest last time stamp merged, microseconds
    u32 count;      // sum of the merged events' counts
};

// Log roles of a read-back.
enum LogRole { kRolePacket = 0, kRolePayload = 1, kRoleCapture = 2 };

class LogData {
public:
    explicit LogData(NorvCore::CDom& dom);
    ~LogData();
    LogData(const LogData&) = delete;
    LogData& operator=(const LogData&) = delete;

    // File names. The setters only change names: an open file stays open.
    void SetLogFileName(wxString name);
    wxString& GetLogFileName() { return m_LogFileName; }
    void SetLogFilePath(wxString path);
    wxString& GetLogFilePath() { return m_LogFilePath; }
    wxString& GetLogFileFullPath() { return m_LogFileFullPath; }
    void SetLogFileSizeKB(long sizeKB) { m_LogFileSizeKB = i32(sizeKB); }
    long GetLogFileSizeKB() const { return m_LogFileSizeKB; }
    void SetNumberOfOldCopies(int copies) { m_NumberOfOldCopies = copies; }
    int GetNumberOfOldCopies() const { return m_NumberOfOldCopies; }

    // Opens the log file for appending, making its folder where needed.
    bool InitializeLogFile();
    // Waits (up to a fixed 750 ms) for the queue of events awaiting
    // formatting to empty.
    void DrainQueue(u32 waitMsec);
    // The family's files whose names begin with pattern, the live file first,
    // then old copies by number. Returns the count, or size_t(-1) when the
    // folder cannot be listed.
    size_t ListLogFiles(wxString pattern, wxArrayString& files);

    // The record path: renders the record, decides whether it is logged, runs
    // the analysis, and hands the line to the cache. True when the line
    // reached the cache. data is the trailing block, packet the captured bytes.
    bool WriteLogData(const DriverLogEntry* record, const void* data, u32 dataLen, const u8* packet,
                      u32 packetLen);
    bool ProcessLogData(const std::string& line, const u64* firstTimeUsec, DriverLogEntry* copy);
    bool ProcessLogEntry(const std::string& line, const u64* firstTimeUsec, DriverLogEntry* copy);
    bool AnalyzeLogEntry(const std::string& line, const u64* firstTimeUsec, DriverLogEntry* copy);
    // Clamps and installs the cache limits, then flushes down to the new size.
    void SetCacheLimits(u64 cacheSize, u32 cacheLifetime, u32 cacheStaletime);

    // Renders columns 3 to 28 of the log line of a working copy. Always true.
    bool BinaryToAscii(const DriverLogEntry* record, std::string& line, u64& firstTimeUsec,
                       u64& lastTimeUsec);

    // The coalescing cache.
    bool CacheRecord(const std::string& line, u64 firstTimeUsec, u64 lastTimeUsec, u32 count);
    // Writes what is due (everything when force is set). False when a line
    // could not be written or the file could not be closed or rotated.
    bool FlushBufferedData(bool force);
    bool WriteRecord(const std::string& line, const LogRecordValue& value);

    // Read-back: the lines of one role (LogRole) whose first time lies in
    // the span (seconds since 1970, 0 for open), oldest file first, each
    // handed to sink. Without a sink the scan stops at the first such line.
    // False only when the family cannot be listed. Holds m_ReadLock.
    bool GetLogData(int role, i64 startTime, i64 endTime, const wxString& uuid, LogLineSink* sink);

    // The syslog message of a working copy (record and trailing block), in
    // the native or the CEF form as the host's syslog settings say. False,
    // with result untouched, only when no configuration table is set.
    bool SyslogFormat(const DriverLogEntry* record, std::string& result);

    // Traffic analysis. HandleTerminatedFlow counts one flow of the record
    // path in the open time bin. CacheMaintenance closes the bin once its
    // time is up, scores its sources and forgets expired attackers; config
    // (may be null: then nothing is blocked) is the table of the caller's
    // own script call, read only on the caller's thread. True while the open
    // bin holds flows. WriteProbeEvent reports a detection (scanStats null
    // for a stealth probe) with no lock held; false when its type is off.
    void HandleTerminatedFlow(const TerminatedFlow& flow, u8 protocol);
    bool CacheMaintenance(ConfigUtils* config);
    bool WriteProbeEvent(int type, u32 address, u8 protocol, ConfigUtils* config,
                         const FlowStats* scanStats);

    // The file store.
    bool WriteRawData(size_t length, const void* bytes);
    bool CloseLogFile();
    bool RotateFiles();
    bool RemoveOldFiles(bool onlyOldest);

    // The write call of the store; tests replace it to inject faults.
    typedef ssize_t (*WriteFunction)(int fd, const void* bytes, size_t length);
    void SetWriteFunction(WriteFunction function) { m_WriteFunction = function; }

    // The script's configuration table, for the length of one script call.
    void SetConfigUtils(ConfigUtils* config) { m_ConfigUtils = config; }
    ConfigUtils* GetConfigUtils() const { return m_ConfigUtils; }
    void SetNorviHandle(norvi_handle_t handle) { m_NorviHandle = handle; }
    norvi_handle_t GetNorviHandle() const { return m_NorviHandle; }

    // Read-only views for the script face and tests.
    const std::set<u8>& GetIgnoreTcpFlags() const { return m_IgnoreTcpFlags; }
    double GetScanRatioCleanBin() const { return m_ScanRatioCleanBin; }
    double GetScanRatioSuspectBin() const { return m_ScanRatioSuspectBin; }
    u32 GetTimeBinMsec() const { return m_TimeBinMsec; }
    u32 GetScanningIpsRetentionMsec() const { return m_ScanningIpsRetentionMsec; }
    i32 GetVmProtection() const { return m_VmProtection; }
    NorvCore::CDom& GetDom() const { return *m_Dom; }

private:
    void initialize();
    void ReadAnalysisSettings();
    // The number of a family member: its extension read as a decimal number,
    // 0 for the live file and for anything that does not begin with digits.
    static long LogFileNumber(const wxString& path);
    // The path of old copy number (0: the live file).
    wxString OldCopyPath(int number) const;
    // The configuration id of the driver's interface, looked up only when
    // the index differs from the last one.
    void LookUpInterfaceId(u32 interfaceIndex);
    // Whether the configuration table raised an error that the script entry
    // must pass on; the record path stops at once then.
    bool ConfigFailed() const;
    bool ReadConfiguration(bool packetRecord);
    bool ReadAnalysisConfiguration();
    // Installs a list read from the configuration and frees the one it
    // replaces, under lock where one guards the field.
    static void ReplaceList(IpList*& field, IpList* replacement, wxCriticalSection* lock);
    // Scoring of one source's closed bin, and one observation of a candidate
    // (the entry may be erased). Detections go to reports, to be carried out
    // by ReportProbe once the caller holds no lock.
    void AnalyzeTerminatedFlow(u32 address, u8 protocol, FlowStats&& stats,
                               std::vector<ProbeReport>& reports);
    void UpdateLikelihoodRatio(std::map<IpProtocolKey, ScanCandidate>::iterator candidate,
                               bool suspect, std::vector<ProbeReport>& reports);
    // Records a new detection in m_ProbingIps and appends it to reports;
    // silent for a known one. False only when the type is not enabled.
    bool RecordProbe(int type, u32 address, u8 protocol, const FlowStats* scanStats,
                     std::vector<ProbeReport>& reports);
    // Block request, agent event and heartbeat of a recorded detection.
    void ReportProbe(const ProbeReport& report, ConfigUtils* config);
    // One file of a read-back; false when the read-back ends with it.
    bool ReadBackFile(const wxString& path, bool primary, const ReadBackSpan& span,
                      LogLineSink* sink);
    // Appends " HOSTID=<id>" with the configuration's host id.
    void AppendHostIdentity(char* buffer, size_t size);

    wxCriticalSection m_ReadLock;       // held through a read-back
    wxCriticalSection m_QueueLock;      // guards m_FormatQueue
    bool m_TraceEnabled = false;        // category "vexil" at construction
    wxString m_LogName;                 // label in trace lines; stays empty
    u64 m_CacheMaxRecords = 128;        // m_CacheLock
    u32 m_CacheLifetimeMsec = 1800000;  // m_CacheLock
    wxString m_LogFileFullPath;
    wxString m_LogFilePath;
    wxString m_LogFileName;
    wxString m_LastBadFile;  // m_ReadLock
    i32 m_LogFileSizeKB = 1024;
    i32 m_NumberOfOldCopies = 7;
    IpList* m_IgnoreIpList = nullptr;  // owned
    const char* const m_LastLineKeys[3] = {
        "norvp.vexil.lastline.packet", "norvp.vexil.lastline.payload", "norvp.vexil.lastline.pcap"};
    std::deque<std::string> m_FormatQueue;  // m_QueueLock
    u64 m_LastConfigUpdate = ~u64(0);
    std::map<std::string, LogRecordValue> m_LogRecordMap;  // m_CacheLock
    wxCriticalSection m_CacheLock;
    u32 m_CacheStaleMsec = 900000;      // m_CacheLock
    wxCriticalSection m_FileLock;       // held while a line is written
    wxFile m_LogFile;                   // m_FileLock (or m_CacheLock when closing)
    bool m_OutOfSpaceReported = false;  // m_FileLock
    WriteFunction m_WriteFunction;      // ::write but in fault-injection tests
    bool m_WriteVerbatim = false;
    NorvCore::CDom* m_Dom;  // not owned
    NorvCore::CSyslogger m_Syslogger;
    ConfigUtils* m_ConfigUtils = nullptr;  // set for one script call, not owned
    bool m_ScanTraceEnabled = false;       // category "LogScan" at construction
    u32 m_LastTimeBinTicks =
        NorvCore::SystemTickCount();  // CacheMaintenance only; bin 1 opens here
    IpList* m_DestIpList = nullptr;   // m_DestIpListLock
    wxCriticalSection m_DestIpListLock;
    IpList* m_DestIpv6List = nullptr;  // m_DestIpv6ListLock
    wxCriticalSection m_DestIpv6ListLock;
    IpList* m_WhitelistIpList = nullptr;  // m_WhitelistIpListLock
    wxCriticalSection m_WhitelistIpListLock;
    wxCriticalSection m_WhitelistIpv6ListLock;
    wxCriticalSection m_ProbeConfigLock;
    i32 m_BlockAttackerSeconds[kProbeTypeCount] = {};       // m_ProbeConfigLock
    std::bitset<kProbeTypeCount> m_ProbeEnabled;            // m_ProbeConfigLock
    std::bitset<kProbeTypeCount> m_ProbeNotifyImmediately;  // m_ProbeConfigLock
    std::map<ProbingHostKey, u32> m_ProbingIps;             // m_ProbingIpsLock
    wxCriticalSection m_ProbingIpsLock;
    u32 m_ScanningIpsRetentionMsec = 300000;
    std::map<IpProtocolKey, FlowStats> m_TerminatedFlows;  // m_TerminatedFlowsLock
    wxCriticalSection m_TerminatedFlowsLock;
    u32 m_TimeBinMsec = 10000;
    double m_ScanIpsPerPort = 3.0;
    double m_ScanPortsPerIpFlagNow = 64.0;
    double m_ScanPortsPerIp = 3.0;
    double m_ScanLikelihoodRatioCeiling = 99.0;
    double m_ScanRatioCleanBin = 0.25;
    double m_ScanLikelihoodRatioFloor = 0.01;
    double m_ScanRatioSuspectBin = 4.0;
    std::map<IpProtocolKey, ScanCandidate> m_LikelihoodRatios;  // m_LikelihoodRatiosLock
    wxCriticalSection m_LikelihoodRatiosLock;
    std::set<u8> m_IgnoreTcpFlags;
    u32 m_LastInterfaceIndex = ~u32(0);
    i32 m_LastInterfaceId = -1;
    i32 m_VmProtection = 0;
    norvi_handle_t m_NorviHandle = nullptr;  // not owned
};

}  // namespace VEXIL
