// The script entry SetNorvi, seen from both sides: what the script hands over
// is the handle the log object keeps, and a refused box leaves it in place.
#include <gtest/gtest.h>
#include <lua.hpp>

#include "host/slb/SLB.h"
#include "log/LogData.h"

namespace {

TEST(SetNorviEntry, KeepsACopyOfTheHandleAndIgnoresAClosedBox) {
    lua_State* L = luaL_newstate();
    ASSERT_NE(nullptr, L);
    luaL_openlibs(L);
    const char* const chunk = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so'\n"
                              "require 'norv'\n"
                              "local norvi = require 'norvi'\n"
                              "assert(require 'vexil')\n"
                              "dom = SLB.norv.Dom(':memory:')\n"
                              "log = SLB.vexil.LogData(dom)\n"
                              "first = assert(norvi.open())\n"
                              "assert(log:SetNorvi(first) == 1)\n"
                              "local second = assert(norvi.open())\n"
                              "second:close()\n"
                              "assert(not pcall(log.SetNorvi, log, second))\n"
                              "return log, first";
    ASSERT_EQ(LUA_OK, luaL_dostring(L, chunk)) << lua_tostring(L, -1);
    VEXIL::LogData* log = SLB::get<VEXIL::LogData*>(L, -2);
    ASSERT_NE(nullptr, log);
    auto* box = static_cast<norvi_handle_t*>(luaL_testudata(L, -1, "norvi_handle_t*"));
    ASSERT_NE(nullptr, box);
    const norvi_handle_t handle = *box;
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(handle, log->GetNorviHandle());

    // Closing the script's box leaves the log object's copy as it was.
    ASSERT_EQ(LUA_OK, luaL_dostring(L, "first:close()")) << lua_tostring(L, -1);
    EXPECT_EQ(nullptr, *box);
    EXPECT_EQ(handle, log->GetNorviHandle());
    lua_close(L);
}

}  // namespace
