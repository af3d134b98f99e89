// norvi.EncodeRecord: a driver log record from a table of named fields,
// written through the one record builder.
#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include "driver/lua/NorviLua.h"
#include "driver/record/RecordBuilder.h"

namespace NorviLua {

namespace {

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

}  // namespace

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

}  // namespace NorviLua
