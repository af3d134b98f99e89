// CDom: the host's store of settings, host values, conditions and agent events.
//
// One CDom serves one agent. Settings and host values live in an SQLite
// database (a file path, or ":memory:"), so that values written by Set survive
// a reopen of the same file. Conditions are in-memory raise counters that
// other threads can wait on. Agent events are kept in order in the database
// and copied to the operator log.
//
// Thread safety: every public operation may be called from any thread. The
// database handle and the configuration document are guarded by m_StoreLock;
// conditions and the exit flag by m_ConditionLock with m_ConditionChanged.
//
// The event table is bounded, so that an agent flooded with events (an
// attacker can cause them) holds steady memory and disk: each new event first
// drops the events older than the setting "norv.events.maxAgeSeconds" (30
// days when absent or not a positive number) and then the oldest beyond the
// setting "norv.events.maxCount" (10000). The host value
// "norv.events.dropped" counts the events dropped so; AgentEventsDropped
// reads it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <string>
#include <vector>

#include <wx/string.h>

#include "host/Lock.h"
#include "host/Types.h"

struct sqlite3;
struct sqlite3_stmt;

namespace NorvCore {

class XMLObject;

// One agent event as the host keeps it.
struct AgentEvent {
    int number;
    wxString detail;
};

class CDom {
public:
    // Opens (creating where needed) the store at path; ":memory:" keeps it in
    // memory. A store that cannot be opened leaves the object usable: reads
    // answer "absent" and writes fail, with an operator log line.
    explicit CDom(const std::string& path);
    ~CDom();
    CDom(const CDom&) = delete;
    CDom& operator=(const CDom&) = delete;

    bool IsOpen() const;

    // Settings and host values. An absent key reads as the empty string or
    // as false from the typed forms.
    std::string Get(const std::string& key) const;
    bool Get(const std::string& key, i64& value) const;
    bool Get(const std::string& key, bool& value) const;
    bool Set(const std::string& key, i64 value);
    bool Set(const std::string& key, bool value);
    bool Set(const std::string& key, const std::string& value);
    wxString GetWxString(const wxString& key) const;
    // A stamp that changes with every Set: drawn from one count for the
    // whole process at construction and after each write, so that no two
    // stores and no two states of one store share it. Reading it is cheap,
    // so that a reader of settings can keep what it read until it changes.
    // Only writes through this object move it, not those of another process
    // that opened the same file.
    u64 SettingsStamp() const { return m_SettingsStamp.load(std::memory_order_acquire); }

    // The base folder that stands where the agent keeps its data (log files
    // below it): the setting "norv.baseFolder", "/var/lib/norv" when absent.
    // False, with folder untouched, when the setting is not an absolute path.
    bool BaseFolder(wxString& folder) const;

    // The configuration document that ConfigGetXml reads by path.
    bool SetConfigXml(const wxString& text);
    // Fills object from the element at path ("/A/B/C") of the configuration
    // document. False when there is no document, no such element, or the
    // object does not parse it.
    bool ConfigGetXml(const std::string& path, XMLObject& object) const;

    // Conditions: named raise counters. ConditionQuery gives the count (0 for
    // a condition never raised) and returns whether it was ever raised; a and
    // b, when given, receive the low and high 32 bits of the count.
    // ConditionRaise returns the new count's low 32 bits.
    bool ConditionQuery(const std::string& name, u64& count, u32* a, u32* b);
    u32 ConditionRaise(const std::string& name);
    // Waits until the named condition's count differs from lastSeen, the time
    // runs out or the exit is requested; true when it moved.
    bool ConditionWait(const std::string& name, u64 lastSeen, u32 waitMsec);

    // Waits up to waitMsec for the exit request; true once it has been made.
    // Called on a CRunnable thread it also ends, with true, when that thread
    // is asked to stop (StopThread, requestExit), and with false when the
    // thread is awakened. woken, when given, is set when the wait ended for
    // one of these reasons rather than by running out of time.
    bool ShouldExit(u32 waitMsec, bool* woken) const;
    void RequestExit();

    // Agent events: stored in order and copied to the operator log as the
    // warning "Agent event <number>: <detail>". The formatting forms take
    // narrow UTF-8 texts (const char*) for %s, %ls for wide texts; see
    // FormatWithNarrowArgs for the conversions supported.
    void AgentEventWrite(int number, const wxString& detail);
    void DoAgentEventWrite(int number, const wchar_t* format, ...);
    // Writes to the agent's current CDom (the most recently made one that is
    // still alive), or only to the operator log where there is none. flags
    // is not used.
    static void DoLogAgentEvent(int flags, int number, const wchar_t* format, ...);
    std::vector<AgentEvent> AgentEvents() const;
    void ClearAgentEvents();
    // Events dropped to keep the table within its bounds, over the life of
    // the store (the host value "norv.events.dropped").
    u64 AgentEventsDropped() const;

    // The CDom that DoLogAgentEvent and host services without a CDom at hand
    // use; null when none is alive.
    static CDom* Current();

private:
    bool Exec(const char* sql) const REQUIRES(m_StoreLock);
    void StoreEvent(int number, const wxString& detail);
    // Gives the event table of an older store its time column and index;
    // m_StoreLock is held. False, with an operator log line, on failure.
    bool UpgradeEventTable() REQUIRES(m_StoreLock);
    // The prepared statement of the event path with index which, made on
    // first use and kept; null when it can't be made. m_StoreLock is held.
    sqlite3_stmt* EventStatement(int which) REQUIRES(m_StoreLock);
    void FinalizeEventStatements() REQUIRES(m_StoreLock);

    std::atomic<u64> m_SettingsStamp;  // moved after each write under m_StoreLock
    mutable CMutex m_StoreLock;
    sqlite3* m_Db GUARDED_BY(m_StoreLock) = nullptr;
    mutable sqlite3_stmt* m_GetStatement GUARDED_BY(m_StoreLock) = nullptr;  // prepared once by Get
    wxString m_ConfigXml GUARDED_BY(m_StoreLock);
    sqlite3_stmt* m_EventStatements[6] GUARDED_BY(m_StoreLock) = {};  // see EventStatement

    mutable CMutex m_ConditionLock;
    mutable std::condition_variable m_ConditionChanged;  // on m_ConditionLock
    std::map<std::string, u64> m_Conditions GUARDED_BY(m_ConditionLock);
    bool m_ExitRequested GUARDED_BY(m_ConditionLock) = false;
};

}  // namespace NorvCore
