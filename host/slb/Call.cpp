#include "host/slb/Call.h"

#include "host/slb/Manager.h"

namespace SLB {

namespace detail {

ClassInfo* ClassForConstructor(lua_State* L, const std::string& typeKey) {
    Manager* manager = Manager::getInstance(L);
    ClassInfo* cls = manager ? manager->getClass(typeKey) : nullptr;
    if (!cls) {
        luaL_error(L, "Class %s is not avaliable! ", typeKey.c_str());
    }
    return cls;
}

}  // namespace detail

}  // namespace SLB
