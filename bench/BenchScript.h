// CBenchScript: a Lua state that has loaded the system's modules from the
// build tree the way the agent does, for benchmarks of the script face. The
// setup chunk must return a function; Call runs it once.
//
// Used by the one benchmark thread that made it.
#pragma once

#include <string>

#include <lua.hpp>

class CBenchScript {
public:
    explicit CBenchScript(const std::string& setup);
    ~CBenchScript();
    CBenchScript(const CBenchScript&) = delete;
    CBenchScript& operator=(const CBenchScript&) = delete;

    // Empty while the setup and every call ran.
    const std::string& Error() const { return m_Error; }
    // Puts a byte string into the global variable name.
    void SetGlobal(const char* name, const std::string& bytes);
    // Calls the function of the setup with argument; its first result as an
    // integer, 0 (and the error kept) when it failed.
    lua_Integer Call(lua_Integer argument = 0);

private:
    lua_State* m_Lua;
    std::string m_Error;
};
