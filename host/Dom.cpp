// CDom: settings and host values in SQLite, conditions in memory, agent
// events in SQLite and the operator log.
//
// Every CDom alive is listed in Doms() (under its lock), newest last, so
// that DoLogAgentEvent finds the current one. The list's lock is taken before
// a CDom's m_StoreLock, never after it.
#include "host/Dom.h"

#include <sqlite3.h>

#include <strings.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>

#include <wx/log.h>

#include "host/Runnable.h"
#include "host/TextHelpers.h"

namespace NorvCore {

namespace {

// Every CDom alive, newest last.
struct DomList {
    CMutex lock;
    std::vector<CDom*> doms GUARDED_BY(lock);
};

DomList& Doms() {
    static DomList list;
    return list;
}

const char* const kDefaultBaseFolder = "/var/lib/norv";

// The source of every store's settings stamp.
u64 NextSettingsStamp() {
    static std::atomic<u64> count{0};
    return count.fetch_add(1, std::memory_order_relaxed) + 1;
}

// A ShouldExit on a CRunnable thread looks at that thread's own exit request
// at least this often while it waits for the agent's.
constexpr std::chrono::milliseconds kThreadExitSlice(50);

// A prepared statement, finalised when it goes out of scope.
class CStatement {
public:
    CStatement(sqlite3* db, const char* sql) {
        if (db != nullptr && sqlite3_prepare_v2(db, sql, -1, &m_Statement, nullptr) != SQLITE_OK) {
            wxLogError("Host store statement failed: %s", sqlite3_errmsg(db));
            sqlite3_finalize(m_Statement);
            m_Statement = nullptr;
        }
    }
    ~CStatement() { sqlite3_finalize(m_Statement); }
    CStatement(const CStatement&) = delete;
    CStatement& operator=(const CStatement&) = delete;

    bool Ok() const { return m_Statement != nullptr; }
    bool Bind(int index, const std::string& text) {
        return sqlite3_bind_text(m_Statement, index, text.data(), static_cast<int>(text.size()),
                                 SQLITE_TRANSIENT) == SQLITE_OK;
    }
    bool Bind(int index, i64 value) {
        return sqlite3_bind_int64(m_Statement, index, value) == SQLITE_OK;
    }
    int Step() { return sqlite3_step(m_Statement); }
    std::string Text(int column) {
        const unsigned char* text = sqlite3_column_text(m_Statement, column);
        const int length = sqlite3_column_bytes(m_Statement, column);
        return text == nullptr
                   ? std::string()
                   : std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
    }
    i64 Integer(int column) { return sqlite3_column_int64(m_Statement, column); }

private:
    sqlite3_stmt* m_Statement = nullptr;
};

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string ToUtf8(const wxString& text) {
    const wxScopedCharBuffer buffer = text.utf8_str();
    return std::string(buffer.data(), buffer.length());
}

}  // namespace

CDom::CDom(const std::string& path) : m_SettingsStamp(NextSettingsStamp()) {
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        wxLogError("Can't open the host store %s: %s", path,
                   db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close(db);
    } else {
        // Another process may hold the file for a moment.
        sqlite3_busy_timeout(db, 2000);
        CMutexLocker guard(m_StoreLock);
        char* error = nullptr;
        if (sqlite3_exec(db,
                         "CREATE TABLE IF NOT EXISTS settings("
                         "key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL);"
                         "CREATE TABLE IF NOT EXISTS events("
                         "seq INTEGER PRIMARY KEY AUTOINCREMENT, number INTEGER NOT NULL, "
                         "detail TEXT NOT NULL, time INTEGER NOT NULL DEFAULT 0)",
                         nullptr, nullptr, &error) == SQLITE_OK) {
            m_Db = db;
            if (!UpgradeEventTable()) {
                m_Db = nullptr;
                sqlite3_close(db);
            }
        } else {
            wxLogError("Can't open the host store %s: %s", path,
                       error != nullptr ? error : "unknown");
            sqlite3_free(error);
            sqlite3_close(db);
        }
    }
    DomList& list = Doms();
    CMutexLocker guard(list.lock);
    list.doms.push_back(this);
}

CDom::~CDom() {
    {
        DomList& list = Doms();
        CMutexLocker guard(list.lock);
        list.doms.erase(std::remove(list.doms.begin(), list.doms.end(), this), list.doms.end());
    }
    CMutexLocker guard(m_StoreLock);
    sqlite3_finalize(m_GetStatement);
    FinalizeEventStatements();
    sqlite3_close(m_Db);
    m_Db = nullptr;
}

bool CDom::IsOpen() const {
    CMutexLocker guard(m_StoreLock);
    return m_Db != nullptr;
}

// Runs one statement that takes no parameters; m_StoreLock is held.
bool CDom::Exec(const char* sql) const {
    if (m_Db == nullptr) {
        return false;
    }
    char* error = nullptr;
    if (sqlite3_exec(m_Db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        wxLogError("Host store statement failed: %s", error != nullptr ? error : "unknown");
        sqlite3_free(error);
        return false;
    }
    return true;
}

std::string CDom::Get(const std::string& key) const {
    CMutexLocker guard(m_StoreLock);
    // Settings are read per record and per syslog message: the statement is
    // prepared once and reused.
    if (m_GetStatement == nullptr && m_Db != nullptr &&
        sqlite3_prepare_v3(m_Db, "SELECT value FROM settings WHERE key = ?1", -1,
                           SQLITE_PREPARE_PERSISTENT, &m_GetStatement, nullptr) != SQLITE_OK) {
        wxLogError("Host store statement failed: %s", sqlite3_errmsg(m_Db));
        sqlite3_finalize(m_GetStatement);
        m_GetStatement = nullptr;
    }
    if (m_GetStatement == nullptr) {
        return std::string();
    }
    std::string value;
    if (sqlite3_bind_text(m_GetStatement, 1, key.data(), static_cast<int>(key.size()),
                          SQLITE_STATIC) == SQLITE_OK &&
        sqlite3_step(m_GetStatement) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(m_GetStatement, 0);
        const int length = sqlite3_column_bytes(m_GetStatement, 0);
        if (text != nullptr) {
            value.assign(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
        }
    }
    sqlite3_reset(m_GetStatement);
    sqlite3_clear_bindings(m_GetStatement);
    return value;
}

bool CDom::Get(const std::string& key, i64& value) const {
    const std::string text = Trimmed(Get(key));
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long parsed = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0') {
        return false;
    }
    value = parsed;
    return true;
}

bool CDom::Get(const std::string& key, bool& value) const {
    const std::string text = Trimmed(Get(key));
    if (text == "1" || strcasecmp(text.c_str(), "true") == 0) {
        value = true;
        return true;
    }
    if (text == "0" || strcasecmp(text.c_str(), "false") == 0) {
        value = false;
        return true;
    }
    return false;
}

bool CDom::Set(const std::string& key, i64 value) {
    return Set(key, std::to_string(value));
}

bool CDom::Set(const std::string& key, bool value) {
    return Set(key, std::string(value ? "1" : "0"));
}

bool CDom::Set(const std::string& key, const std::string& value) {
    CMutexLocker guard(m_StoreLock);
    CStatement statement(m_Db,
                         "INSERT INTO settings(key, value) VALUES(?1, ?2) "
                         "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    const bool written = statement.Ok() && statement.Bind(1, key) && statement.Bind(2, value) &&
                         statement.Step() == SQLITE_DONE;
    m_SettingsStamp.store(NextSettingsStamp(), std::memory_order_release);
    return written;
}

wxString CDom::GetWxString(const wxString& key) const {
    const std::string text = Get(ToUtf8(key));
    return wxString::FromUTF8(text.data(), text.size());
}

bool CDom::BaseFolder(wxString& folder) const {
    const std::string text = Get("norv.baseFolder");
    if (text.empty()) {
        folder = kDefaultBaseFolder;
        return true;
    }
    if (text[0] != '/') {
        return false;
    }
    folder = wxString::FromUTF8(text.data(), text.size());
    return true;
}

bool CDom::ConditionQuery(const std::string& name, u64& count, u32* a, u32* b) {
    CMutexLocker guard(m_ConditionLock);
    const auto found = m_Conditions.find(name);
    count = found == m_Conditions.end() ? 0 : found->second;
    if (a != nullptr) {
        *a = static_cast<u32>(count);
    }
    if (b != nullptr) {
        *b = static_cast<u32>(count >> 32);
    }
    return found != m_Conditions.end();
}

u32 CDom::ConditionRaise(const std::string& name) {
    u64 count = 0;
    {
        CMutexLocker guard(m_ConditionLock);
        count = ++m_Conditions[name];
    }
    m_ConditionChanged.notify_all();
    return static_cast<u32>(count);
}

bool CDom::ConditionWait(const std::string& name, u64 lastSeen, u32 waitMsec) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMsec);
    CMutexLocker lock(m_ConditionLock);
    for (;;) {
        const auto found = m_Conditions.find(name);
        const bool moved = (found == m_Conditions.end() ? 0 : found->second) != lastSeen;
        if (moved || m_ExitRequested || !lock.WaitUntil(m_ConditionChanged, deadline)) {
            return moved;
        }
    }
}

bool CDom::ShouldExit(u32 waitMsec, bool* woken) const {
    if (woken != nullptr) {
        *woken = false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMsec);
    CRunnable* const thread = CRunnable::Current();
    if (thread == nullptr) {
        CMutexLocker lock(m_ConditionLock);
        while (!m_ExitRequested && lock.WaitUntil(m_ConditionChanged, deadline)) {
        }
        const bool exiting = m_ExitRequested;
        if (woken != nullptr) {
            *woken = exiting;
        }
        return exiting;
    }
    // On a CRunnable thread a request to stop that thread counts as well: the
    // wait is on the thread's own wake-up, with a look at the agent's exit
    // flag every slice.
    for (;;) {
        {
            CMutexLocker guard(m_ConditionLock);
            if (m_ExitRequested) {
                if (woken != nullptr) {
                    *woken = true;
                }
                return true;
            }
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const auto slice = std::max(std::chrono::milliseconds(0), std::min(left, kThreadExitSlice));
        bool awakened = false;
        const bool stop = thread->TestDestroy(static_cast<u32>(slice.count()), &awakened);
        if (stop || awakened) {
            if (woken != nullptr) {
                *woken = true;
            }
            return stop;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
}

void CDom::RequestExit() {
    {
        CMutexLocker guard(m_ConditionLock);
        m_ExitRequested = true;
    }
    m_ConditionChanged.notify_all();
}

void CDom::AgentEventWrite(int number, const wxString& detail) {
    StoreEvent(number, detail);
    wxLogWarning("Agent event %d: %s", number, detail);
}

void CDom::DoAgentEventWrite(int number, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    const wxString detail = FormatWithNarrowArgs(format, args);
    va_end(args);
    AgentEventWrite(number, detail);
}

void CDom::DoLogAgentEvent(int flags, int number, const wchar_t* format, ...) {
    (void)flags;  // callers pass 0; there is no variant to choose
    va_list args;
    va_start(args, format);
    const wxString detail = FormatWithNarrowArgs(format, args);
    va_end(args);
    // The list's lock keeps the current CDom alive while it writes.
    DomList& list = Doms();
    CMutexLocker guard(list.lock);
    if (!list.doms.empty()) {
        list.doms.back()->AgentEventWrite(number, detail);
    } else {
        wxLogWarning("Agent event %d: %s", number, detail);
    }
}

std::vector<AgentEvent> CDom::AgentEvents() const {
    std::vector<AgentEvent> events;
    CMutexLocker guard(m_StoreLock);
    CStatement statement(m_Db, "SELECT number, detail FROM events ORDER BY seq");
    if (!statement.Ok()) {
        return events;
    }
    while (statement.Step() == SQLITE_ROW) {
        const std::string detail = statement.Text(1);
        events.push_back(AgentEvent{static_cast<int>(statement.Integer(0)),
                                    wxString::FromUTF8(detail.data(), detail.size())});
    }
    return events;
}

void CDom::ClearAgentEvents() {
    CMutexLocker guard(m_StoreLock);
    Exec("DELETE FROM events");
}

CDom* CDom::Current() {
    DomList& list = Doms();
    CMutexLocker guard(list.lock);
    return list.doms.empty() ? nullptr : list.doms.back();
}

}  // namespace NorvCore
