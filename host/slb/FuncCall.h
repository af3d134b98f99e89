// FuncCall: a plain Lua C function given to a class as a member.
//
// The binder calls it as it is: no argument count check, and the function
// fetches its object from position 1 itself (SLB::get). Immutable value.
#pragma once

#include <lua.hpp>

namespace SLB {

class FuncCall {
public:
    static FuncCall create(lua_CFunction function) { return FuncCall(function); }
    lua_CFunction function() const { return m_Function; }

private:
    explicit FuncCall(lua_CFunction function) : m_Function(function) {}

    lua_CFunction m_Function;
};

}  // namespace SLB
