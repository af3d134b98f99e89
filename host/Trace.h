// Trace lines and the operator log.
//
// Trace categories are switched on by the host (SetTraceCategories). The
// guard LogTraceIsEnabled is cheap and allocates nothing, so busy paths may
// call it per record. Traced lines are kept (the last 10000) for
// TakeTraceLines() and, when the environment variable NORV_TRACE_STDERR is
// set, printed to standard error.
//
// Operator log lines are what code writes with wxLogError and wxLogWarning;
// the host installs a log target that keeps them (the last 10000) for
// TakeOperatorLogLines() and prints them to standard error. Threads started
// through CRunnable log into the same target at once; the toolkit holds back
// lines of other threads until the main thread flushes the log, which
// TakeOperatorLogLines() does when called on the main thread.
//
// Thread safety: all functions may be called from any thread.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <wx/string.h>

class wxLog;

namespace NorvCore {

bool LogTraceIsEnabled(const wchar_t* category);
void LogTrace(const wxString& category, const char* file, int line, const char* function,
              const wxString& message);

// "" switches every category off, "*" all on; otherwise a comma-separated list.
void SetTraceCategories(const std::string& categories);
// Lines traced since the last call, oldest first, then forgotten. Each line is
// "category file:line function: message".
std::vector<std::string> TakeTraceLines();

// Installs the operator log target (idempotent). Called by InitializeToolkit.
void InstallOperatorLog();
// The operator log target, made on first use; the thread-specific target of
// CRunnable threads. It lives as long as the process.
wxLog* OperatorLogTarget();
// Operator log lines since the last call ("Error: ..." or "Warning: ..."),
// oldest first, then forgotten.
std::vector<std::string> TakeOperatorLogLines();
// Where the operator log prints its lines as they come: standard error until
// this is called, nowhere with null. The lines are kept for
// TakeOperatorLogLines either way. Returns the stream used before.
FILE* SetOperatorLogEcho(FILE* stream);

}  // namespace NorvCore

// Traces one line in category when it is enabled. The message is a wxString
// expression that is built only then.
#define NORV_TRACE(category, message)                                                 \
    do {                                                                              \
        if (NorvCore::LogTraceIsEnabled(category)) {                                  \
            NorvCore::LogTrace(category, NorvCore::ShortFileName(__FILE__), __LINE__, \
                               __PRETTY_FUNCTION__, message);                         \
        }                                                                             \
    } while (0)

namespace NorvCore {
// The function's qualified name from a compiler signature: no return type,
// no parameters ("VEXIL::LogData::CacheRecord").
std::string QualifiedFunctionName(const char* signature);
// The file's short name, without its folders.
const char* ShortFileName(const char* path);
}  // namespace NorvCore
