#include "host/slb/Call.h"

#include "host/slb/Manager.h"

namespace SLB {

namespace detail {

void KeepArgumentsAlive(lua_State* L, int count) {
    lua_createtable(L, count, 0);
    for (int i = 1; i <= count; ++i) {
        lua_pushvalue(L, i);
        lua_rawseti(L, -2, i);
    }
    lua_setuservalue(L, -2);
}

ClassInfo* ClassForConstructor(lua_State* L, const std::string& typeKey) {
    Manager* manager = Manager::getInstance(L);
    ClassInfo* cls = manager ? manager->getClass(typeKey) : nullptr;
    if (!cls) {
        // KEEP: the misspelling and the trailing blank; scripts match this text.
        luaL_error(L, "Class %s is not avaliable! ", typeKey.c_str());
    }
    return cls;
}

}  // namespace detail

}  // namespace SLB
