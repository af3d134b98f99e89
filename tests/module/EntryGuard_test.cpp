// The guard of the script entries: whatever the work throws stays out of the
// interpreter and becomes the entry's failure result on a balanced stack.
#include "module/EntryGuard.h"

#include <gtest/gtest.h>

#include <exception>
#include <new>
#include <string>

#include <lua.hpp>

namespace {

using VEXIL::EntryFailure;

// Calls an entry whose work pushes a stray value and then throws.
template <EntryFailure failure, class Error>
int ThrowingEntry(lua_State* L) {
    return VEXIL::GuardEntry(L, "Entry()", failure, [L]() -> int {
        lua_pushliteral(L, "half done");
        throw Error();
    });
}

TEST(EntryGuard, EveryExceptionBecomesTheEntrysFailureResult) {
    lua_State* L = luaL_newstate();
    const struct {
        lua_CFunction entry;
        const char* expected;  // the results as text
    } cases[] = {
        {ThrowingEntry<EntryFailure::False, std::bad_alloc>, "1 false"},
        {ThrowingEntry<EntryFailure::EmptyString, std::exception>, "1 "},
        {ThrowingEntry<EntryFailure::Nil, int>, "1 nil"},
        {ThrowingEntry<EntryFailure::LuaError, std::bad_alloc>, "error Entry() failed"},
    };
    for (const auto& c : cases) {
        lua_pushcfunction(L, c.entry);
        lua_pushliteral(L, "argument");
        std::string results = "error ";
        if (lua_pcall(L, 1, LUA_MULTRET, 0) == LUA_OK) {
            results = std::to_string(lua_gettop(L)) + " ";
            results += luaL_tolstring(L, 1, nullptr);
        } else {
            results += lua_tostring(L, -1);
        }
        EXPECT_EQ(c.expected, results);
        lua_settop(L, 0);
    }
    lua_close(L);
}

}  // namespace
