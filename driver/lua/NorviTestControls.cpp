// The driver's side of the channel for tests, through the stand-in's test
// controls: block requests seen, SSL requests queued, SSL responses seen,
// results chosen.
#include <stdint.h>
#include <string.h>

#include "driver/lua/NorviLua.h"
#include "driver/standin/NorviControl.h"

namespace NorviLua {

namespace {

// The named test control of the loaded library; raises an error when the
// library or the control is missing.
#define NORVI_CONTROL(L, name) \
    reinterpret_cast<decltype(&name)>(RequireSymbol(L, #name, "norvi test control unavailable"))

// A result code for the driver to return: an integer that fits an int.
int CheckResultCode(lua_State* L) {
    return static_cast<int>(CheckWholeNumber(L, 1, 1, "code", INT32_MIN, INT32_MAX));
}

}  // namespace

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

}  // namespace NorviLua
