// The script class vexil::LogData. Its raw functions read their arguments by
// stack position, hand over to the log object and push the result; each runs
// its work under GuardEntry. The entries that take a configuration table wrap
// its position in a ConfigUtils for the length of the call (OpenConfig,
// CloseConfig). Everything here runs on the Lua thread.
#include "module/LogDataLua.h"

#include <ctime>

#include <wx/strconv.h>
#include <lua.hpp>

#include "host/Dom.h"
#include "host/Trace.h"
#include "host/norvi.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"
#include "log/RecordCopy.h"
#include "module/EntryGuard.h"

namespace VEXIL {
namespace {

int WriteLogDataLua(lua_State* L) {
    LogData* log = CheckLogData(L, "WriteLogData called!");
    size_t recordLength, dataLength, packetLength;
    const char* record = BytesArgument(L, 2, recordLength);
    const char* data = BytesArgument(L, 3, dataLength);
    const char* packet = BytesArgument(L, 5, packetLength);
    // A record shorter than its fixed part is refused, never read past. A
    // trailing block too long for the working copy is refused by the copy.
    if (record == nullptr || recordLength < DriverLogEntry::kSize || dataLength > 0xFFFFFFFFu ||
        packetLength > 0xFFFFFFFFu) {
        TraceEntry("WriteLogData() - refused a record shorter than its fixed part");
        lua_pushboolean(L, 0);
        return 1;
    }
    ConfigUtils* config = OpenConfig(L, log, 4);
    const int results = GuardEntry(L, "WriteLogData()", EntryFailure::False, [&] {
        lua_pushboolean(L, log->WriteLogData(reinterpret_cast<const DriverLogEntry*>(record), data,
                                             u32(dataLength), reinterpret_cast<const u8*>(packet),
                                             u32(packetLength)));
        return 1;
    });
    return CloseConfig(L, log, config, results);
}

int SetNorviLua(lua_State* L) {
    if (SLB::get<LogData*>(L, 1) == nullptr) {
        TraceEntry("LogData object expected");
    }
    LogData* log = CheckLogData(L);
    auto* box = static_cast<norvi_handle_t*>(luaL_testudata(L, 2, "norvi_handle_t*"));
    if (box == nullptr) {
        TraceEntry("norvi handle expected");
        return luaL_argerror(L, 2, "norvi handle expected");
    }
    if (*box == nullptr) {
        TraceEntry("norvi handle already closed");
        return luaL_argerror(L, 2, "norvi handle already closed");
    }
    // The handle stays the script's: it is copied, never closed here.
    log->SetNorviHandle(*box);
    lua_pushinteger(L, 1);
    return 1;
}

// The log role of a script's role number: 1 and 2 stand for themselves,
// anything else is the packet log.
int RoleOf(i32 role) {
    switch (role) {
        case 1:
            return kRolePayload;
        case 2:
            return kRoleCapture;
        default:
            return kRolePacket;
    }
}

int GetLogDataLua(lua_State* L) {
    TraceEntry("GetLogData called!");
    LogData* log = CheckLogData(L);
    const i64 startTime = lua_tointegerx(L, 2, nullptr);
    const i64 endTime = lua_tointegerx(L, 3, nullptr);
    const i32 roleArgument = i32(lua_tointegerx(L, 4, nullptr));
    const i64 maxLines = lua_tointegerx(L, 5, nullptr);
    return GuardEntry(L, "GetLogData()", EntryFailure::EmptyString, [&] {
        const wxString uuid = log->GetDom().GetWxString("uuid");
        LogLineSink sink(LogLineSink::CapLineCount(maxLines));
        log->GetLogData(RoleOf(roleArgument), startTime, endTime < 0 ? 0 : endTime, uuid, &sink);

        // The lines go back as UTF-8 text, one line feed after each. Lines
        // of printable ASCII, which is all a well-formed file holds, are
        // that already.
        const std::string_view joined = sink.JoinedText();
        const char* bytes = joined.data();
        size_t length = joined.size();
        // The converted text may live inside the string that it came from.
        wxString text;
        wxScopedCharBuffer utf8;
        if (!sink.AllPrintable()) {
            // Each line is decoded on its own: one whose bytes are no UTF-8
            // (the unterminated tail of a damaged file) is taken byte for
            // byte as Latin-1, so that it cannot swallow the lines behind it.
            for (size_t start = 0; start < length;) {
                const size_t end = joined.find('\n', start);
                const size_t lineLength = end - start;
                wxString line = wxString::FromUTF8(bytes + start, lineLength);
                if (line.empty() && lineLength != 0) {
                    line = wxString(bytes + start, wxConvISO8859_1, lineLength);
                }
                text += line;
                text += '\n';
                start = end + 1;
            }
            utf8 = text.utf8_str();
            bytes = utf8.data();
            length = utf8.length();
        }

        char startText[1024] = {};
        const time_t start = time_t(startTime);
        struct tm local;
        if (localtime_r(&start, &local) != nullptr) {
            asctime_r(&local, startText);
        }
        NORV_TRACE(L"vexil", wxString::Format("GetLogData(%s) returning %d bytes for %s driver "
                                              "requested start time = %s",
                                              uuid, int(length), roleArgument == 0 ? "fw" : "dpi",
                                              startText));
        lua_pushlstring(L, length != 0 ? bytes : "", length);
        return 1;
    });
}

int SyslogFormatLua(lua_State* L) {
    LogData* log = CheckLogData(L, "SysLogFormat called!");
    size_t recordLength, dataLength;
    const char* record = BytesArgument(L, 2, recordLength);
    const char* data = BytesArgument(L, 3, dataLength);
    ConfigUtils* config = OpenConfig(L, log, 4);
    const int results = GuardEntry(L, "SyslogFormat()", EntryFailure::EmptyString, [&] {
        // The message is made in a text that the thread keeps, so that no
        // message after the first costs an allocation of its own.
        static thread_local std::string text;
        text.clear();
        RecordCopy copy;
        // A record shorter than its fixed part, or a block that does not fit
        // the working copy, is refused, never read past.
        if (record != nullptr && recordLength >= DriverLogEntry::kSize &&
            copy.Fill(record, data, dataLength)) {
            log->SyslogFormat(copy.Entry(), text);
        } else {
            NORV_TRACE(L"vexil", wxString::Format("SyslogFormat() - refused a record of %u bytes "
                                                  "with %u bytes of data",
                                                  unsigned(recordLength), unsigned(dataLength)));
        }
        // The message ends at its first zero byte, as a C string does.
        lua_pushstring(L, text.c_str());
        return 1;
    });
    return CloseConfig(L, log, config, results);
}

// log:CacheMaintenance(config): the script's periodic call into the traffic
// analysis. The table is read only when an attacker is to be blocked.
int CacheMaintenanceLua(lua_State* L) {
    LogData* log = CheckLogData(L);
    if (lua_type(L, 2) != LUA_TTABLE) {
        return luaL_argerror(L, 2, "lua table expected");
    }
    ConfigUtils* config = OpenConfig(L, log, 2);
    const int results = GuardEntry(L, "CacheMaintenance()", EntryFailure::False, [&] {
        lua_pushboolean(L, log->CacheMaintenance(config));
        return 1;
    });
    return CloseConfig(L, log, config, results);
}

}  // namespace
}  // namespace VEXIL

void logDataLua_Init(SLB::Manager* manager) {
    using VEXIL::LogData;
    // Registered in this order: the raw functions first, then the bound
    // methods, CacheMaintenance last.
    SLB::Class<LogData, SLB::Instance::NoCopy>("vexil::LogData", manager)
        .setInfo("VEXIL::LogData: renders, caches, stores and analyses driver records")
        .constructor<NorvCore::CDom&>()
        .set("GetLogData", SLB::FuncCall::create(VEXIL::GetLogDataLua))
        .set("WriteLogData", SLB::FuncCall::create(VEXIL::WriteLogDataLua))
        .set("SyslogFormat", SLB::FuncCall::create(VEXIL::SyslogFormatLua))
        .set("SetNorvi", SLB::FuncCall::create(VEXIL::SetNorviLua))
        .set("SetLogFileName", &LogData::SetLogFileName)
        .set("GetLogFileName", &LogData::GetLogFileName)
        .set("SetLogFilePath", &LogData::SetLogFilePath)
        .set("GetLogFilePath", &LogData::GetLogFilePath)
        .set("SetLogFileSizeKB", &LogData::SetLogFileSizeKB)
        .set("GetLogFileSizeKB", &LogData::GetLogFileSizeKB)
        .set("SetNumberOfOldCopies", &LogData::SetNumberOfOldCopies)
        .set("GetNumberOfOldCopies", &LogData::GetNumberOfOldCopies)
        .set("GetLogFileFullPath", &LogData::GetLogFileFullPath)
        .set("FlushBufferedData", &LogData::FlushBufferedData)
        .set("InitializeLogFile", &LogData::InitializeLogFile)
        .set("CacheMaintenance", SLB::FuncCall::create(VEXIL::CacheMaintenanceLua));
}
