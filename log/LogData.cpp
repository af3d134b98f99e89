// LogData: construction, settings, file names, opening the log file and
// listing the family. The record path, cache, store, read-back and analysis
// live in their own files.
#include "log/LogData.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/log.h>
#include <wx/utils.h>

#include "config/TcpFlagList.h"
#include "host/TextHelpers.h"
#include "host/Ticks.h"
#include "host/Trace.h"

namespace VEXIL {

namespace {

// Reads a setting as text; empty means absent.
std::string Setting(const NorvCore::CDom& dom, const char* key) {
    return dom.Get(key);
}

// Parses a non-empty setting into a double; a text that does not parse
// leaves the default in place.
void ParseDouble(const std::string& text, double& target) {
    if (text.empty()) {
        return;
    }
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str()) {
        target = value;
    }
}

// Parses a non-empty setting as a base-10 long into a 32-bit field.
void ParseMsec(const std::string& text, u32& target) {
    if (text.empty()) {
        return;
    }
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (end != text.c_str()) {
        target = u32(value);
    }
}

}  // namespace

LogData::LogData(NorvCore::CDom& dom) : m_WriteFunction(&::write), m_Dom(&dom), m_Syslogger("pnp") {
    initialize();
}

LogData::~LogData() {
    // The cache is not flushed here: a script that wants its records on disk
    // calls FlushBufferedData(true) first.
    m_LogFile.Close();
    delete m_IgnoreIpList;
    delete m_DestIpList;
    delete m_DestIpv6List;
    delete m_WhitelistIpList;
}

void LogData::initialize() {
    wxString folder;
    if (m_Dom->BaseFolder(folder)) {
        SetLogFilePath(folder + "/Logfiles" + "/norv_agent");
        SetLogFileName("norv_mpnp");
    } else {
        // KEEP: the text names the other platform's call; operators and
        // their log filters know the message by these words.
        wxLogError("CLoggerThread(): Error %#lx from SHGetFolderPath() getting System folder.",
                   long(EINVAL));
        m_LogFilePath.clear();
        m_LogFileName.clear();
        m_LogFileFullPath.clear();
    }

    m_LogFileSizeKB = 1024;
    m_NumberOfOldCopies = 7;
    m_WriteVerbatim = false;
    {
        NorvCore::CCriticalSectionLocker lock(m_CacheLock);
        m_CacheMaxRecords = 128;
        m_CacheLifetimeMsec = 1800000;
        m_CacheStaleMsec = 900000;
    }
    m_LastConfigUpdate = ~u64(0);
    m_IgnoreIpList = nullptr;
    m_LastInterfaceIndex = ~u32(0);
    m_LastInterfaceId = -1;
    m_VmProtection = 0;
    m_NorviHandle = nullptr;

    m_TraceEnabled = NorvCore::LogTraceIsEnabled(L"vexil");
    m_ScanTraceEnabled = NorvCore::LogTraceIsEnabled(L"LogScan");

    ReadAnalysisSettings();
}

void LogData::ReadAnalysisSettings() {
    const NorvCore::CDom& dom = *m_Dom;
    double prY0H0 = 0.8;
    double prY0H1 = 0.2;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanPrY0H0"), prY0H0);
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanPrY0H1"), prY0H1);
    // The likelihood multipliers of a clean and of a suspect bin.
    m_ScanRatioCleanBin = prY0H1 / prY0H0;
    m_ScanRatioSuspectBin = (1 - prY0H1) / (1 - prY0H0);

    m_ScanningIpsRetentionMsec = 300000;
    ParseMsec(Setting(dom, "norvp.vexil.analysis.ScanningIpsRetentionMsec"),
              m_ScanningIpsRetentionMsec);
    m_TimeBinMsec = 10000;
    ParseMsec(Setting(dom, "norvp.vexil.analysis.ScanTimeBinMillisec"), m_TimeBinMsec);
    m_ScanIpsPerPort = 3.0;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanIpsPerPort"), m_ScanIpsPerPort);
    m_ScanPortsPerIp = 3.0;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanPortsPerIp"), m_ScanPortsPerIp);
    m_ScanPortsPerIpFlagNow = 64.0;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanPortsPerIpFlagNow"),
                m_ScanPortsPerIpFlagNow);
    m_ScanLikelihoodRatioFloor = 0.01;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanLikelihoodRatioFloor"),
                m_ScanLikelihoodRatioFloor);
    m_ScanLikelihoodRatioCeiling = 99.0;
    ParseDouble(Setting(dom, "norvp.vexil.analysis.ScanLikelihoodRatioCeiling"),
                m_ScanLikelihoodRatioCeiling);
    m_IgnoreTcpFlags = ParseTcpFlagList(Setting(dom, "norvp.vexil.analysis.IgnoreTcpFlags"));
}

void LogData::SetLogFileName(wxString name) {
    m_LogFileFullPath = m_LogFilePath + "/" + name;
    m_LogFileName = name;
}

void LogData::SetLogFilePath(wxString path) {
    m_LogFilePath = path;
    SetLogFileName(m_LogFileName);
}

bool LogData::InitializeLogFile() {
    NorvCore::CCriticalSectionLocker lock(m_FileLock);
    return OpenLogFile();
}

bool LogData::OpenLogFile() {
    if (m_LogFile.IsOpened()) {
        return true;
    }
    // Every flush that writes opens the file, so this path costs what the
    // system calls cost: the narrow path is made again only when the path
    // has changed, and the folder is looked at only when the opening fails.
    if (m_OpenPathFrom != m_LogFileFullPath) {
        const wxCharBuffer narrow = m_LogFileFullPath.fn_str();
        m_OpenPath = narrow.data() != nullptr ? narrow.data() : "";
        m_OpenPathFrom = m_LogFileFullPath;
    }
    const char* const path = m_OpenPath.c_str();
    const auto openForAppend = [path] {
        return ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    };
    int fd = openForAppend();
    // The toolkit's own error lines are not wanted: failures become events.
    // Only the toolkit's calls are silenced, so that the events and the
    // warnings of SecureFileOrDirectory still reach the operator log.
    // An empty folder (no base folder was found) is no folder to make: the
    // opening fails and says so.
    if (fd < 0 && !m_LogFilePath.empty() && !wxFileName::DirExists(m_LogFilePath)) {
        bool made;
        {
            wxLogNull quiet;
            made = wxFileName::Mkdir(m_LogFilePath, 0755, wxPATH_MKDIR_FULL);
        }
        if (!made) {
            m_Dom->DoAgentEventWrite(6003, L"%.128s",
                                     static_cast<const char*>(m_LogFilePath.utf8_str()));
            return false;
        }
        NorvCore::SecureFileOrDirectory(m_LogFilePath, false);
        fd = openForAppend();
    }
    if (fd < 0) {
        m_Dom->DoAgentEventWrite(6001, L"%.128s",
                                 static_cast<const char*>(m_LogFileFullPath.utf8_str()));
        return false;
    }
    m_LogFile.Attach(fd);
    // The length at opening; the writes add to it, and the closing tests it
    // against the size instead of asking the file again.
    struct stat status;
    m_LogFileLength = fstat(fd, &status) == 0 ? wxFileOffset(status.st_size) : wxInvalidOffset;
    if (m_LogFileLength == 0) {
        NorvCore::SecureFileOrDirectory(m_LogFileFullPath, false);
    }
    return true;
}

void LogData::DrainQueue(u32 waitMsec) {
    NORV_TRACE(L"vexil", wxString::Format("DrainQueue(): waiting up to %u msec for our queue of "
                                          "events awaiting formatting to empty",
                                          waitMsec));
    // KEEP: the wait is fixed at 750 ms and ignores waitMsec; callers pass
    // what they would like, and the flush must not wait longer than this.
    const u32 start = NorvCore::SystemTickCount();
    while (NorvCore::SystemTickCount() - start < 750) {
        {
            NorvCore::CCriticalSectionLocker lock(m_QueueLock);
            if (m_FormatQueue.empty()) {
                return;
            }
        }
        wxMilliSleep(46);
    }
}

long LogData::LogFileNumber(const wxString& path) {
    // The number of an old copy is its extension, what follows the last dot
    // of the file's name unless that dot begins the name; anything that does
    // not begin with digits counts as 0, as the live file does.
    const wxString name = FileNameOf(path);
    const size_t dot = name.rfind('.');
    if (dot == wxString::npos || dot == 0 || dot + 1 == name.length() ||
        !wxIsdigit(name[dot + 1])) {
        return 0;
    }
    return std::wcstol(name.wc_str() + dot + 1, nullptr, 10);
}

wxString LogData::FileNameOf(const wxString& path) {
    return path.AfterLast('/');
}

size_t LogData::ListLogFiles(wxString pattern, wxArrayString& files) {
    files.Clear();
    pattern += "*";
    DIR* folder = ::opendir(m_LogFilePath.fn_str());
    if (folder == nullptr) {
        const int error = errno ? errno : ENOENT;
        m_Dom->DoAgentEventWrite(
            6005, L"%.128s|%.128s", static_cast<const char*>(m_LogFilePath.utf8_str()),
            static_cast<const char*>(NorvCore::ErrnoToString(error).utf8_str()));
        errno = error;  // for the caller's own report
        return size_t(-1);
    }
    wxString prefix = m_LogFilePath;
    while (prefix.length() > 1 && prefix.Last() == '/') {
        prefix.RemoveLast();
    }
    if (prefix.Last() != '/') {
        prefix += '/';
    }
    // Files only, hidden ones left out; the entry's type comes with it where
    // the file system gives one, else from the file itself.
    while (const struct dirent* entry = ::readdir(folder)) {
        if (entry->d_name[0] == '.' || entry->d_type == DT_DIR) {
            continue;
        }
        const wxString name(entry->d_name, *wxConvFileName);
        if (!wxMatchWild(pattern, name, false)) {
            continue;
        }
        const wxString path = prefix + name;
        struct stat status;
        if (entry->d_type != DT_REG && ::stat(path.fn_str(), &status) == 0 &&
            S_ISDIR(status.st_mode)) {
            continue;
        }
        files.Add(path);
    }
    ::closedir(folder);
    // By number (the live file first), then by name; each number is worked
    // out once.
    std::vector<std::pair<long, wxString>> sorted;
    sorted.reserve(files.GetCount());
    for (const wxString& file : files) {
        sorted.emplace_back(LogFileNumber(file), file);
    }
    std::sort(sorted.begin(), sorted.end());
    files.Clear();
    for (const auto& file : sorted) {
        files.Add(file.second);
    }
    return files.GetCount();
}

}  // namespace VEXIL
