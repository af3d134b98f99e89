#include "BenchScript.h"

CBenchScript::CBenchScript(const std::string& setup) : m_Lua(luaL_newstate()) {
    luaL_openlibs(m_Lua);
    const std::string chunk = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so;' .. package.cpath\n"
                              "require 'norv'; require 'vexil'\n" +
                              setup;
    // The function stays at the bottom of the stack.
    if (luaL_loadstring(m_Lua, chunk.c_str()) != LUA_OK || lua_pcall(m_Lua, 0, 1, 0) != LUA_OK ||
        !lua_isfunction(m_Lua, -1)) {
        m_Error = lua_isstring(m_Lua, -1) ? lua_tostring(m_Lua, -1) : "setup returned no function";
    }
}

CBenchScript::~CBenchScript() {
    lua_close(m_Lua);
}

void CBenchScript::SetGlobal(const char* name, const std::string& bytes) {
    lua_pushlstring(m_Lua, bytes.data(), bytes.size());
    lua_setglobal(m_Lua, name);
}

lua_Integer CBenchScript::Call(lua_Integer argument) {
    lua_pushvalue(m_Lua, 1);
    lua_pushinteger(m_Lua, argument);
    if (lua_pcall(m_Lua, 1, 1, 0) != LUA_OK) {
        m_Error = lua_isstring(m_Lua, -1) ? lua_tostring(m_Lua, -1) : "call failed";
        lua_pop(m_Lua, 1);
        return 0;
    }
    const lua_Integer result = lua_tointeger(m_Lua, -1);
    lua_pop(m_Lua, 1);
    return result;
}
