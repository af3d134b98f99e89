// The raw script functions of vexil::LogData that answer queries. They read
// their arguments by stack position, hand over to the log object, and push
// one string. Failures inside the pipeline give an empty string, never nil
// and never a Lua error; only a wrong object at position 1 is an argument
// error.
#include "module/QueryLua.h"

#include <ctime>

#include <wx/strconv.h>

#include "host/Trace.h"
#include "log/LogLineSink.h"
#include "log/RecordCopy.h"
#include "module/EntrySupport.h"

using VEXIL::BytesArgument;
using VEXIL::DriverLogEntry;
using VEXIL::LogData;
using VEXIL::LogDataArgument;
using VEXIL::LogLineSink;
using VEXIL::RecordCopy;
using VEXIL::WithConfig;

namespace {

// The log role of a script's role number: 1 and 2 stand for themselves,
// anything else is the packet log.
int RoleOf(i32 role) {
    switch (role) {
        case 1:
            return VEXIL::kRolePayload;
        case 2:
            return VEXIL::kRoleCapture;
        default:
            return VEXIL::kRolePacket;
    }
}

void PushBytes(lua_State* L, const char* bytes, size_t length) {
    lua_pushlstring(L, length != 0 ? bytes : "", length);
}

}  // namespace

int GetLogDataLua(lua_State* L) {
    NORV_TRACE(L"vexil", "GetLogData called!");
    LogData* log = LogDataArgument(L);
    if (log == nullptr) {
        return luaL_argerror(L, 1, "LogData object expected");
    }
    const i64 startTime = lua_tointegerx(L, 2, nullptr);
    const i64 endTime = lua_tointegerx(L, 3, nullptr);
    const i32 roleArgument = i32(lua_tointegerx(L, 4, nullptr));
    const i64 maxLines = lua_tointegerx(L, 5, nullptr);
    return SLB::detail::Protect(L, [&] {
        const wxString uuid = log->GetDom().GetWxString("uuid");
        LogLineSink sink(LogLineSink::CapLineCount(maxLines));
        log->GetLogData(RoleOf(roleArgument), startTime, endTime < 0 ? 0 : endTime, uuid, &sink);

        // The lines go back as UTF-8 text, one line feed after each. Lines
        // of printable ASCII, which is all a well-formed file holds, are
        // that already.
        const std::string& joined = sink.JoinedText();
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
        PushBytes(L, bytes, length);
        return 1;
    });
}

int SyslogFormatLua(lua_State* L) {
    LogData* log = LogDataArgument(L);
    NORV_TRACE(L"vexil", "SysLogFormat called!");
    if (log == nullptr) {
        return luaL_argerror(L, 1, "LogData object expected");
    }
    size_t recordLength, dataLength;
    const char* record = BytesArgument(L, 2, recordLength);
    const char* data = BytesArgument(L, 3, dataLength);
    return SLB::detail::Protect(L, [&] {
        std::string text;
        {
            RecordCopy copy;
            // A record shorter than its fixed part, or a block that does not
            // fit the working copy, is refused, never read past.
            if (record != nullptr && recordLength >= DriverLogEntry::kSize &&
                copy.Fill(record, data, dataLength)) {
                WithConfig(L, log, 4, "SyslogFormat()",
                           [&] { return log->SyslogFormat(copy.Entry(), text); });
            } else {
                NORV_TRACE(L"vexil",
                           wxString::Format("SyslogFormat() - refused a record of %u bytes with "
                                            "%u bytes of data",
                                            unsigned(recordLength), unsigned(dataLength)));
            }
        }
        // The message ends at its first zero byte, as a C string does.
        lua_pushstring(L, text.c_str());
        return 1;
    });
}
