// CDom: the bounded table of agent events.
//
// Each event is stored in one transaction with the pruning that keeps the
// table within its bounds and the count of what the pruning dropped, so that
// a crash leaves either all of it or none. The statements of this path are
// prepared once and kept, as an event flood runs through it.
#include <sqlite3.h>

#include <chrono>

#include <wx/log.h>

#include "host/Dom.h"

namespace NorvCore {

namespace {

const char kMaxCountKey[] = "norv.events.maxCount";
const char kMaxAgeKey[] = "norv.events.maxAgeSeconds";
const char kDroppedKey[] = "norv.events.dropped";
const i64 kDefaultMaxCount = 10000;
const i64 kDefaultMaxAgeSeconds = 30 * 24 * 3600;

// The statements of the event path, by their index in m_EventStatements.
enum EventStatementIndex { kBegin, kInsert, kDropOld, kDropExcess, kCountDropped, kCommit };
const char* const kEventStatements[] = {
    "BEGIN",
    "INSERT INTO events(number, detail, time) VALUES(?1, ?2, ?3)",
    "DELETE FROM events WHERE time < ?1",
    // The newest ?1 sequence numbers stay: never more than ?1 events.
    "DELETE FROM events WHERE seq <= (SELECT MAX(seq) FROM events) - ?1",
    ("INSERT INTO settings(key, value) VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE "
     "SET value = CAST(value AS INTEGER) + CAST(excluded.value AS INTEGER)"),
    "COMMIT",
};
static_assert(sizeof kEventStatements / sizeof kEventStatements[0] == 6,
              "one text per kept statement");

// Milliseconds since 1970.
i64 NowMsec() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Runs a prepared statement to its end and makes it ready for the next use.
bool Run(sqlite3_stmt* statement) {
    const int rc = sqlite3_step(statement);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return rc == SQLITE_DONE;
}

}  // namespace

bool CDom::UpgradeEventTable() {
    // Stores made before events had a time get the column; their events
    // count as made at 1970 and are the first to go by age.
    sqlite3_stmt* statement = nullptr;
    bool hasTime = false;
    if (sqlite3_prepare_v2(m_Db, "SELECT 1 FROM pragma_table_info('events') WHERE name = 'time'",
                           -1, &statement, nullptr) == SQLITE_OK) {
        hasTime = sqlite3_step(statement) == SQLITE_ROW;
    }
    sqlite3_finalize(statement);
    return (hasTime || Exec("ALTER TABLE events ADD COLUMN time INTEGER NOT NULL DEFAULT 0")) &&
           Exec("CREATE INDEX IF NOT EXISTS events_time ON events(time)");
}

sqlite3_stmt* CDom::EventStatement(int which) {
    sqlite3_stmt*& statement = m_EventStatements[which];
    if (statement == nullptr && m_Db != nullptr &&
        sqlite3_prepare_v3(m_Db, kEventStatements[which], -1, SQLITE_PREPARE_PERSISTENT, &statement,
                           nullptr) != SQLITE_OK) {
        wxLogError("Host store statement failed: %s", sqlite3_errmsg(m_Db));
        sqlite3_finalize(statement);
        statement = nullptr;
    }
    return statement;
}

void CDom::FinalizeEventStatements() {
    for (sqlite3_stmt*& statement : m_EventStatements) {
        sqlite3_finalize(statement);
        statement = nullptr;
    }
}

void CDom::StoreEvent(int number, const wxString& detail) {
    i64 maxCount = kDefaultMaxCount;
    if (!Get(kMaxCountKey, maxCount) || maxCount < 0) {
        maxCount = kDefaultMaxCount;
    }
    i64 maxAgeSeconds = kDefaultMaxAgeSeconds;
    if (!Get(kMaxAgeKey, maxAgeSeconds) || maxAgeSeconds <= 0) {
        maxAgeSeconds = kDefaultMaxAgeSeconds;
    }
    const wxScopedCharBuffer text = detail.utf8_str();
    const i64 now = NowMsec();

    CMutexLocker guard(m_StoreLock);
    if (m_Db == nullptr) {
        return;
    }
    sqlite3_stmt* statements[6];
    for (int i = kBegin; i <= kCommit; ++i) {
        statements[i] = EventStatement(i);
        if (statements[i] == nullptr) {
            return;
        }
    }
    if (!Run(statements[kBegin])) {
        wxLogError("Can't store agent event %d: %s", number, sqlite3_errmsg(m_Db));
        return;
    }
    sqlite3_bind_int64(statements[kInsert], 1, number);
    sqlite3_bind_text(statements[kInsert], 2, text.data(), static_cast<int>(text.length()),
                      SQLITE_STATIC);
    sqlite3_bind_int64(statements[kInsert], 3, now);
    bool stored = Run(statements[kInsert]);
    i64 dropped = 0;
    if (stored) {
        // Saturates rather than wraps for an age beyond the clock's start.
        const i64 maxAgeMsec = maxAgeSeconds > now / 1000 ? now : maxAgeSeconds * 1000;
        sqlite3_bind_int64(statements[kDropOld], 1, now - maxAgeMsec);
        stored = Run(statements[kDropOld]);
        dropped += sqlite3_changes(m_Db);
    }
    if (stored) {
        sqlite3_bind_int64(statements[kDropExcess], 1, maxCount);
        stored = Run(statements[kDropExcess]);
        dropped += sqlite3_changes(m_Db);
    }
    if (stored && dropped > 0) {
        sqlite3_bind_text(statements[kCountDropped], 1, kDroppedKey, -1, SQLITE_STATIC);
        sqlite3_bind_int64(statements[kCountDropped], 2, dropped);
        stored = Run(statements[kCountDropped]);
    }
    if (stored && Run(statements[kCommit])) {
        return;
    }
    wxLogError("Can't store agent event %d: %s", number, sqlite3_errmsg(m_Db));
    Exec("ROLLBACK");
}

u64 CDom::AgentEventsDropped() const {
    i64 dropped = 0;
    return Get(kDroppedKey, dropped) && dropped > 0 ? static_cast<u64>(dropped) : 0;
}

}  // namespace NorvCore
