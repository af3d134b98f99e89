// The Lua module "norvi": driver handles for scripts, and the driver's side of
// the channel for tests (block requests seen, SSL requests queued, SSL
// responses seen, results chosen), plus an encoder of driver log records.
// It reaches libnorvi.so only through the host core's loader, so that scripts,
// the system and these controls all work on one loaded copy of the library.
//
// Every function runs on the calling Lua thread. Functions that can raise a
// Lua error keep no C++ object with a destructor alive at that point.
#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <lua.hpp>

#include "driver/record/RecordBuilder.h"
#include "driver/standin/NorviControl.h"
#include "host/NorviLoader.h"
#include "host/norvi.h"

namespace {

// Metatable of the box that holds a norvi_handle_t; null once closed. Other
// modules test for this name with luaL_testudata.
const char kHandleMetatable[] = "norvi_handle_t*";

// How a record field is given in Lua and stored in the record.
enum class FieldKind {
    Unsigned,  // integer, little-endian
    Signed,    // integer, little-endian two's complement
    Network,   // integer, network byte order
    Ipv4,      // dotted text, stored as the 4 address bytes
    Ipv6,      // text, stored as the 16 address bytes
    Bytes,     // raw string of at most the width; the rest stays zero
};

struct FieldDescriptor {
    const char* m_Name;
    NORVI::RecordField m_Field;
    FieldKind m_Kind;
    // For a length field: the field whose string length it takes when it is
    // not given itself; null otherwise.
    const char* m_LengthOf;
};

namespace Layout = NORVI::Record;

// The fields of a driver log record by their Lua names, in the order in
// which they are written: where the IPv4 and IPv6 views, or the port and ICMP
// views, overlap, a field given later in this table wins.
const FieldDescriptor kRecordFields[] = {
    {"time_sec", Layout::kTimeSec, FieldKind::Unsigned, nullptr},
    {"time_usec", Layout::kTimeUsec, FieldKind::Unsigned, nullptr},
    {"action", Layout::kAction, FieldKind::Signed, nullptr},
    {"reason", Layout::kReason, FieldKind::Signed, nullptr},
    {"id", Layout::kId, FieldKind::Unsigned, nullptr},
    {"interface_index", Layout::kInterfaceIndex, FieldKind::Unsigned, nullptr},
    {"stream_pos", Layout::kStreamPos, FieldKind::Unsigned, nullptr},
    {"packet_pos", Layout::kPacketPos, FieldKind::Unsigned, nullptr},
    {"flags", Layout::kFlags, FieldKind::Unsigned, nullptr},
    {"interface_mac_len", Layout::kInterfaceMacLen, FieldKind::Unsigned, "interface_mac"},
    {"interface_mac", Layout::kInterfaceMac, FieldKind::Bytes, nullptr},
    {"packet_len", Layout::kPacketLen, FieldKind::Unsigned, nullptr},
    {"note_len", Layout::kNoteLen, FieldKind::Unsigned, "note"},
    {"packet_data_len", Layout::kPacketDataLen, FieldKind::Unsigned, nullptr},
    {"note", Layout::kNote, FieldKind::Bytes, nullptr},
    {"data_len", Layout::kDataLen, FieldKind::Unsigned, nullptr},
    {"data_index", Layout::kDataIndex, FieldKind::Unsigned, nullptr},
    {"log_flags", Layout::kLogFlags, FieldKind::Unsigned, nullptr},
    {"end_time_sec", Layout::kEndTimeSec, FieldKind::Unsigned, nullptr},
    {"end_time_usec", Layout::kEndTimeUsec, FieldKind::Unsigned, nullptr},
    {"count", Layout::kCount, FieldKind::Unsigned, nullptr},
    {"aux_count", Layout::kAuxCount, FieldKind::Unsigned, nullptr},
    {"eth_dest", Layout::kEthDest, FieldKind::Bytes, nullptr},
    {"eth_src", Layout::kEthSrc, FieldKind::Bytes, nullptr},
    {"eth_type", Layout::kEthType, FieldKind::Network, nullptr},
    {"iph_total_len", Layout::kIphTotalLen, FieldKind::Network, nullptr},
    {"iph_frag_off", Layout::kIphFragOff, FieldKind::Network, nullptr},
    {"iph_proto", Layout::kIphProto, FieldKind::Unsigned, nullptr},
    {"iph_src", Layout::kIphSrc, FieldKind::Ipv4, nullptr},
    {"iph_dest", Layout::kIphDest, FieldKind::Ipv4, nullptr},
    {"ipv6h_next", Layout::kIpv6hNext, FieldKind::Unsigned, nullptr},
    {"ipv6h_src", Layout::kIpv6hSrc, FieldKind::Ipv6, nullptr},
    {"ipv6h_dest", Layout::kIpv6hDest, FieldKind::Ipv6, nullptr},
    {"th_sport", Layout::kThSport, FieldKind::Network, nullptr},
    {"th_dport", Layout::kThDport, FieldKind::Network, nullptr},
    {"tcph_flags", Layout::kTcphFlags, FieldKind::Unsigned, nullptr},
    {"icmph_type", Layout::kIcmphType, FieldKind::Unsigned, nullptr},
    {"icmph_code", Layout::kIcmphCode, FieldKind::Unsigned, nullptr},
};

const FieldDescriptor* FindField(const char* name) {
    for (const FieldDescriptor& field : kRecordFields) {
        if (strcmp(field.m_Name, name) == 0) {
            return &field;
        }
    }
    return nullptr;
}

// The integer at index, which must be a number without a fraction within
// [low, high]; raises an argument error for argument otherwise.
lua_Number CheckWholeNumber(lua_State* L, int index, int argument, const char* what, lua_Number low,
                            lua_Number high) {
    if (lua_type(L, index) != LUA_TNUMBER) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s must be an integer", what));
    }
    const lua_Number value = lua_tonumber(L, index);
    if (!(value >= low && value <= high)) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s out of range", what));
    }
    if (value != static_cast<lua_Number>(static_cast<int64_t>(value))) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s must be an integer", what));
    }
    return value;
}

// Writes the value on top of the stack into the record as field says, or
// raises an argument error for argument 1.
void WriteField(lua_State* L, const FieldDescriptor& field, NORVI::CRecordBuilder& record) {
    const size_t width = field.m_Field.m_Width;
    const char* const name = field.m_Name;
    switch (field.m_Kind) {
        case FieldKind::Unsigned:
        case FieldKind::Network:
        case FieldKind::Signed: {
            const int bits = static_cast<int>(width * 8);
            const bool isSigned = field.m_Kind == FieldKind::Signed;
            const lua_Number low = isSigned ? -static_cast<lua_Number>(1LL << (bits - 1)) : 0;
            const lua_Number high = isSigned ? static_cast<lua_Number>((1LL << (bits - 1)) - 1)
                                             : static_cast<lua_Number>((1LL << bits) - 1);
            const char* const what = lua_pushfstring(L, "field '%s'", name);
            const uint64_t value = static_cast<uint64_t>(
                static_cast<int64_t>(CheckWholeNumber(L, -2, 1, what, low, high)));
            lua_pop(L, 1);
            if (field.m_Kind == FieldKind::Network) {
                record.PutNetwork(field.m_Field, value);
            } else {
                record.PutUnsigned(field.m_Field, value);
            }
            return;
        }
        case FieldKind::Ipv4:
        case FieldKind::Ipv6:
        case FieldKind::Bytes: {
            if (lua_type(L, -1) != LUA_TSTRING) {
                luaL_argerror(L, 1, lua_pushfstring(L, "field '%s' must be a string", name));
            }
            size_t length = 0;
            const char* const text = lua_tolstring(L, -1, &length);
            if (field.m_Kind == FieldKind::Bytes) {
                if (length > width) {
                    luaL_argerror(L, 1,
                                  lua_pushfstring(L, "field '%s' longer than %d bytes", name,
                                                  static_cast<int>(width)));
                }
                record.PutBytes(field.m_Field, text, length);
                return;
            }
            const int family = field.m_Kind == FieldKind::Ipv4 ? AF_INET : AF_INET6;
            uint8_t address[16];
            if (strlen(text) != length || inet_pton(family, text, address) != 1) {
                luaL_argerror(L, 1,
                              lua_pushfstring(L, "field '%s' is not an %s address", name,
                                              family == AF_INET ? "IPv4" : "IPv6"));
            }
            record.PutBytes(field.m_Field, address, width);
            return;
        }
    }
}

// norvi.EncodeRecord(fields): a driver log record from a table of named fields.
int EncodeRecord(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    lua_pushnil(L);
    while (lua_next(L, 1) != 0) {
        if (lua_type(L, -2) != LUA_TSTRING) {
            luaL_argerror(L, 1, "field names must be strings");
        }
        const char* const name = lua_tostring(L, -2);
        if (FindField(name) == nullptr) {
            luaL_argerror(L, 1, lua_pushfstring(L, "unknown field '%s'", name));
        }
        lua_pop(L, 1);
    }
    NORVI::CRecordBuilder record;
    for (const FieldDescriptor& field : kRecordFields) {
        lua_getfield(L, 1, field.m_Name);
        if (!lua_isnil(L, -1)) {
            WriteField(L, field, record);
        } else if (field.m_LengthOf != nullptr) {
            lua_getfield(L, 1, field.m_LengthOf);
            if (lua_type(L, -1) == LUA_TSTRING) {
                lua_pushinteger(L, static_cast<lua_Integer>(lua_rawlen(L, -1)));
                WriteField(L, field, record);
                lua_pop(L, 1);
            }
            lua_pop(L, 1);
        }
        lua_pop(L, 1);
    }
    lua_pushlstring(L, reinterpret_cast<const char*>(record.Bytes()), NORVI::Record::kSize);
    return 1;
}

// The named test control of the loaded library; raises an error when the
// library or the control is missing.
template <typename Function>
Function Control(lua_State* L, const char* name) {
    void* const address = NorvCore::NorviSymbol(name);
    if (address == nullptr) {
        char reason[256] = "the loaded libnorvi.so has no such function";
        if (NorvCore::NorviSymbol("norvi_open") == nullptr) {
            norvi_get_error(nullptr, reason, sizeof reason);
        }
        luaL_error(L, "norvi test control %s unavailable: %s", name, reason);
    }
    return reinterpret_cast<Function>(address);
}

#define NORVI_CONTROL(L, name) Control<decltype(&name)>(L, #name)

// A result code for the driver to return: an integer that fits an int.
int CheckResultCode(lua_State* L) {
    return static_cast<int>(CheckWholeNumber(L, 1, 1, "code", INT32_MIN, INT32_MAX));
}

// norvi.BlacklistRequests(): the block requests since the last call, oldest
// first, as {address = "a.b.c.d", milliseconds = n, bytes = raw}.
int BlacklistRequests(lua_State* L) {
    auto take = NORVI_CONTROL(L, norvi_test_take_blacklist_requests);
    const size_t kBatch = 32;
    uint8_t batch[kBatch * NORVI_BLACKLIST_REQUEST_SIZE];
    lua_newtable(L);
    int count = 0;
    for (size_t taken; (taken = take(batch, kBatch)) != 0;) {
        for (size_t index = 0; index < taken; ++index) {
            const uint8_t* const request = batch + index * NORVI_BLACKLIST_REQUEST_SIZE;
            uint32_t milliseconds;
            memcpy(&milliseconds, request + 4, sizeof milliseconds);
            lua_createtable(L, 0, 3);
            lua_pushfstring(L, "%d.%d.%d.%d", request[8], request[9], request[10], request[11]);
            lua_setfield(L, -2, "address");
            lua_pushinteger(L, static_cast<lua_Integer>(milliseconds));
            lua_setfield(L, -2, "milliseconds");
            lua_pushlstring(L, reinterpret_cast<const char*>(request),
                            NORVI_BLACKLIST_REQUEST_SIZE);
            lua_setfield(L, -2, "bytes");
            lua_rawseti(L, -2, ++count);
        }
    }
    return 1;
}

// norvi.SetBlacklistResult(code)
int SetBlacklistResult(lua_State* L) {
    const int code = CheckResultCode(L);
    NORVI_CONTROL(L, norvi_test_set_blacklist_result)(code);
    return 0;
}

// norvi.SetSslResponseResult(code)
int SetSslResponseResult(lua_State* L) {
    const int code = CheckResultCode(L);
    NORVI_CONTROL(L, norvi_test_set_ssl_response_result)(code);
    return 0;
}

// norvi.SslResponses(): the SSL responses since the last call, oldest first,
// as raw byte strings.
int SslResponses(lua_State* L) {
    auto take = NORVI_CONTROL(L, norvi_test_take_ssl_response);
    lua_newtable(L);
    int count = 0;
    for (long size; (size = take(nullptr, 0, nullptr)) >= 0;) {
        if (size == 0) {  // an empty response fits and is taken at once
            lua_pushliteral(L, "");
            lua_rawseti(L, -2, ++count);
            continue;
        }
        void* const buffer = lua_newuserdata(L, static_cast<size_t>(size));
        const long taken = take(buffer, static_cast<size_t>(size), nullptr);
        if (taken >= 0 && taken <= size) {
            lua_pushlstring(L, static_cast<const char*>(buffer), static_cast<size_t>(taken));
            lua_rawseti(L, -3, ++count);
        }
        lua_pop(L, 1);  // the buffer; a response that changed meanwhile is read again
    }
    return 1;
}

// norvi.SubmitSslRequest(header, data): queues one request as the driver would.
int SubmitSslRequest(lua_State* L) {
    size_t headerLength = 0;
    const char* const header = luaL_checklstring(L, 1, &headerLength);
    luaL_argcheck(L, headerLength == NORVI_SSL_HEADER_SIZE, 1, "header must be 80 bytes");
    size_t dataLength = 0;
    const char* const data = luaL_optlstring(L, 2, "", &dataLength);
    luaL_argcheck(L, dataLength <= NORVI_SSL_DATA_MAX, 2, "data longer than 65456 bytes");
    const int code = NORVI_CONTROL(L, norvi_test_submit_ssl_request)(
        header, data, static_cast<uint32_t>(dataLength));
    if (code != 0) {
        return luaL_error(L, "norvi_test_submit_ssl_request failed with code %d", code);
    }
    return 0;
}

// norvi.open(): a box holding a new handle, or nil and the reason.
int Open(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(lua_newuserdata(L, sizeof(norvi_handle_t)));
    *box = nullptr;
    luaL_setmetatable(L, kHandleMetatable);
    *box = norvi_open();
    if (*box == nullptr) {
        char reason[256];
        norvi_get_error(nullptr, reason, sizeof reason);
        lua_pushnil(L);
        lua_pushstring(L, reason);
        return 2;
    }
    return 1;
}

// handle:close() and __gc: closes the handle once; the box then holds null.
int CloseHandle(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(luaL_checkudata(L, 1, kHandleMetatable));
    const norvi_handle_t handle = *box;
    *box = nullptr;
    if (handle != nullptr) {
        norvi_close(handle);
    }
    return 0;
}

int HandleToString(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(luaL_checkudata(L, 1, kHandleMetatable));
    if (*box == nullptr) {
        lua_pushliteral(L, "norvi handle (closed)");
    } else {
        lua_pushfstring(L, "norvi handle (%p)", static_cast<void*>(*box));
    }
    return 1;
}

const luaL_Reg kFunctions[] = {
    {"BlacklistRequests", BlacklistRequests},
    {"EncodeRecord", EncodeRecord},
    {"SetBlacklistResult", SetBlacklistResult},
    {"SetSslResponseResult", SetSslResponseResult},
    {"SslResponses", SslResponses},
    {"SubmitSslRequest", SubmitSslRequest},
    {"open", Open},
    {nullptr, nullptr},
};

const luaL_Reg kHandleMethods[] = {
    {"close", CloseHandle},
    {nullptr, nullptr},
};

const luaL_Reg kHandleMetamethods[] = {
    {"__gc", CloseHandle},
    {"__tostring", HandleToString},
    {nullptr, nullptr},
};

}  // namespace

extern "C" int luaopen_norvi(lua_State* L) {
    if (luaL_newmetatable(L, kHandleMetatable)) {
        luaL_setfuncs(L, kHandleMetamethods, 0);
        luaL_newlib(L, kHandleMethods);
        lua_setfield(L, -2, "__index");
    }
    lua_pop(L, 1);
    luaL_newlib(L, kFunctions);
    return 1;
}
