#include "host/slb/Instance.h"

#include <cstdlib>

#include "host/slb/Manager.h"

namespace SLB {

void* Malloc(size_t size) {
    return std::malloc(size);
}

void Free(void* memory) {
    std::free(memory);
}

bool scriptOwnsInstance(lua_State* L, int index, bool owned) {
    InstanceBox* box = ClassInfo::toInstance(L, index);
    if (!box) {
        return false;
    }
    box->owned = owned;
    return true;
}

namespace detail {

namespace {

// The class of typeKey; raises "Unknown class %s" when it is not registered.
ClassInfo* RequireClass(lua_State* L, const std::string& typeKey) {
    Manager* manager = Manager::getInstance(L);
    ClassInfo* cls = manager ? manager->getClass(typeKey) : nullptr;
    if (!cls) {
        luaL_error(L, "Unknown class %s", typeKey.c_str());
    }
    return cls;
}

}  // namespace

void* getPointer(lua_State* L, int index, const std::string& typeKey) {
    RequireClass(L, typeKey);
    const InstanceBox* box = ClassInfo::toInstance(L, index);
    return box ? box->cls->convertTo(box->object, typeKey) : nullptr;
}

void pushPointer(lua_State* L, void* object, const std::string& typeKey) {
    RequireClass(L, typeKey)->push_ptr(L, object, false);
}

}  // namespace detail

}  // namespace SLB
