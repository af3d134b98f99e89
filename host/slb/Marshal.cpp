#include "host/slb/Marshal.h"

#include "host/slb/Manager.h"

namespace SLB {

namespace detail {

wxString ToWxString(lua_State* L, int index) {
    if (!lua_isstring(L, index)) {
        return wxString();
    }
    size_t length = 0;
    const char* text = lua_tolstring(L, index, &length);
    return wxString::FromUTF8(text, length);
}

void PushWxString(lua_State* L, const wxString& text) {
    const wxScopedCharBuffer utf8 = text.utf8_str();
    lua_pushlstring(L, utf8.data(), utf8.length());
}

void RaiseClassExpected(lua_State* L, int index, const std::string& typeKey) {
    const Manager* manager = Manager::getInstance(L);
    const ClassInfo* cls = manager ? manager->getClass(typeKey) : nullptr;
    const char* name = cls ? cls->name().c_str() : typeKey.c_str();
    luaL_argerror(L, index,
                  lua_pushfstring(L, "%s expected, got %s", name, luaL_typename(L, index)));
}

void CheckArgumentCount(lua_State* L, int given, int expected) {
    if (given != expected) {
        luaL_error(L, "Error number of arguments (given %d -> expected %d)", given, expected);
    }
}

}  // namespace detail

}  // namespace SLB
