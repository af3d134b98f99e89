// Trace categories and lines, and the operator log target.
//
// The switched-on categories are wide strings under s_CategoryLock (shared
// for the guard, exclusive for SetTraceCategories); s_Mode lets the guard
// answer "none" and "all" without taking the lock. Traced lines are under
// s_TraceLinesLock. COperatorLog keeps its lines under its own m_LinesLock;
// the toolkit calls it from whatever thread logs.
#include "host/Trace.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>

#include <wx/log.h>
#include <wx/thread.h>

#include "host/Lock.h"

namespace NorvCore {

namespace {

// Lines kept for the Take functions; older ones are dropped first.
constexpr size_t kMaxKeptLines = 10000;

enum TraceMode : int { TraceNone, TraceAll, TraceList };

std::atomic<int> s_Mode{TraceNone};
CSharedMutex s_CategoryLock;
std::vector<std::wstring> s_Categories GUARDED_BY(s_CategoryLock);

CMutex s_TraceLinesLock;
std::deque<std::string> s_TraceLines GUARDED_BY(s_TraceLinesLock);

void KeepLine(std::deque<std::string>& lines, std::string line) {
    if (lines.size() >= kMaxKeptLines) {
        lines.pop_front();
    }
    lines.push_back(std::move(line));
}

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// The stream the operator log prints to; null prints nothing.
std::atomic<FILE*> s_OperatorLogEcho{stderr};

// The operator log: keeps error and warning lines and prints them to the echo
// stream. Levels below warning (message, info, debug, trace) are dropped.
class COperatorLog : public wxLog {
public:
    std::vector<std::string> TakeLines() {
        CMutexLocker guard(m_LinesLock);
        std::vector<std::string> lines(m_Lines.begin(), m_Lines.end());
        m_Lines.clear();
        return lines;
    }

protected:
    void DoLogRecord(wxLogLevel level, const wxString& msg, const wxLogRecordInfo&) override {
        const char* prefix = nullptr;
        if (level <= wxLOG_Error) {
            prefix = "Error: ";
        } else if (level == wxLOG_Warning) {
            prefix = "Warning: ";
        } else {
            return;
        }
        std::string line = prefix;
        line += msg.utf8_str().data();
        CMutexLocker guard(m_LinesLock);
        FILE* const echo = s_OperatorLogEcho.load(std::memory_order_acquire);
        if (echo != nullptr) {
            fprintf(echo, "%s\n", line.c_str());
        }
        KeepLine(m_Lines, std::move(line));
    }

private:
    CMutex m_LinesLock;
    std::deque<std::string> m_Lines GUARDED_BY(m_LinesLock);
};

COperatorLog* OperatorLog() {
    static COperatorLog* const log = new COperatorLog;
    return log;
}

}  // namespace

bool LogTraceIsEnabled(const wchar_t* category) {
    const int mode = s_Mode.load(std::memory_order_acquire);
    if (mode == TraceNone || category == nullptr) {
        return false;
    }
    if (mode == TraceAll) {
        return true;
    }
    CSharedLocker guard(s_CategoryLock);
    for (const std::wstring& enabled : s_Categories) {
        if (wcscmp(enabled.c_str(), category) == 0) {
            return true;
        }
    }
    return false;
}

std::string QualifiedFunctionName(const char* signature) {
    // "bool VEXIL::LogData::CacheRecord(const string&, u32)" gives
    // "VEXIL::LogData::CacheRecord": the return type and the parameters go;
    // blanks inside template arguments stay.
    const std::string text = signature;
    int depth = 0;
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '<') {
            ++depth;
        } else if (c == '>' && depth > 0) {
            --depth;
        } else if (depth == 0 && c == ' ') {
            start = i + 1;
        } else if (depth == 0 && c == '(' && i > start) {
            return text.substr(start, i - start);
        }
    }
    return text;
}

void LogTrace(const wxString& category, const char* file, int line, const char* function,
              const wxString& message) {
    std::string text = category.utf8_str().data();
    text += ' ';
    text += file != nullptr ? file : "?";
    text += ':';
    text += std::to_string(line);
    text += ' ';
    text += function != nullptr ? QualifiedFunctionName(function) : "?";
    text += ": ";
    text += message.utf8_str().data();
    if (getenv("NORV_TRACE_STDERR") != nullptr) {
        fprintf(stderr, "%s\n", text.c_str());
    }
    CMutexLocker guard(s_TraceLinesLock);
    KeepLine(s_TraceLines, std::move(text));
}

void SetTraceCategories(const std::string& categories) {
    std::vector<std::wstring> list;
    bool all = false;
    size_t start = 0;
    while (start <= categories.size()) {
        size_t comma = categories.find(',', start);
        if (comma == std::string::npos) {
            comma = categories.size();
        }
        const std::string name = Trim(categories.substr(start, comma - start));
        if (name == "*") {
            all = true;
        } else if (!name.empty()) {
            list.push_back(wxString::FromUTF8(name.c_str()).ToStdWstring());
        }
        start = comma + 1;
    }
    CExclusiveLocker guard(s_CategoryLock);
    s_Categories.swap(list);
    s_Mode.store(all ? TraceAll : (s_Categories.empty() ? TraceNone : TraceList),
                 std::memory_order_release);
}

std::vector<std::string> TakeTraceLines() {
    CMutexLocker guard(s_TraceLinesLock);
    std::vector<std::string> lines(s_TraceLines.begin(), s_TraceLines.end());
    s_TraceLines.clear();
    return lines;
}

wxLog* OperatorLogTarget() {
    return OperatorLog();
}

void InstallOperatorLog() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        // The toolkit hands the previous target to the caller, who owns it.
        wxLog* previous = wxLog::SetActiveTarget(OperatorLog());
        if (previous != OperatorLog()) {
            delete previous;
        }
    });
}

std::vector<std::string> TakeOperatorLogLines() {
    if (wxThread::IsMain()) {
        // Lines that other threads logged without a target of their own wait
        // in the toolkit until the main thread flushes.
        wxLog::FlushActive();
    }
    return OperatorLog()->TakeLines();
}

FILE* SetOperatorLogEcho(FILE* stream) {
    return s_OperatorLogEcho.exchange(stream, std::memory_order_acq_rel);
}

const char* ShortFileName(const char* path) {
    if (path == nullptr) {
        return "";
    }
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

}  // namespace NorvCore
