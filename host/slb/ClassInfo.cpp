#include "host/slb/ClassInfo.h"

#include "host/slb/Manager.h"

namespace SLB {

namespace {

// Key in every instance metatable that marks it as the binder's.
const char kInstanceTag = 0;

ClassInfo* UpvalueClass(lua_State* L) {
    return static_cast<ClassInfo*>(lua_touserdata(L, lua_upvalueindex(1)));
}

}  // namespace

ClassInfo::ClassInfo(lua_State* L, Manager& manager, const std::string& typeKey,
                     const std::string& name)
    : m_Manager(manager), m_TypeKey(typeKey), m_Name(name) {
    lua_checkstack(L, 6);
    // The class table: members by name; its metatable finds the members of
    // bases and makes it callable.
    lua_newtable(L);
    lua_createtable(L, 0, 4);
    lua_pushlightuserdata(L, this);
    lua_pushcclosure(L, ClassIndex, 1);
    lua_setfield(L, -2, "__index");
    lua_pushlightuserdata(L, this);
    lua_pushcclosure(L, NoConstructor, 1);
    lua_setfield(L, -2, "__call");
    lua_pushlightuserdata(L, this);
    lua_pushcclosure(L, ClassToString, 1);
    lua_setfield(L, -2, "__tostring");
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    lua_setmetatable(L, -2);

    // The instance metatable: members come from the class table.
    lua_createtable(L, 0, 5);
    lua_pushvalue(L, -2);
    lua_setfield(L, -2, "__index");
    lua_pushcfunction(L, InstanceGc);
    lua_setfield(L, -2, "__gc");
    lua_pushcfunction(L, InstanceToString);
    lua_setfield(L, -2, "__tostring");
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    lua_pushboolean(L, 1);
    lua_rawsetp(L, -2, &kInstanceTag);

    m_MetatableRef = luaL_ref(L, LUA_REGISTRYINDEX);
    m_ClassTableRef = luaL_ref(L, LUA_REGISTRYINDEX);
}

void ClassInfo::destroy(void* object) const {
    if (m_Destroy) {
        m_Destroy(object);
    }
}

void ClassInfo::addBase(const std::string& baseKey, Cast cast) {
    for (Base& base : m_Bases) {
        if (base.key == baseKey) {
            base.cast = cast;
            return;
        }
    }
    m_Bases.push_back(Base{baseKey, cast});
}

void ClassInfo::setConstructor(lua_State* L, lua_CFunction constructor) {
    lua_checkstack(L, 3);
    pushClassTable(L);
    lua_getmetatable(L, -1);
    lua_pushcfunction(L, constructor);
    lua_setfield(L, -2, "__call");
    lua_pop(L, 2);
}

void ClassInfo::setMember(lua_State* L, const std::string& name) {
    lua_checkstack(L, 2);
    pushClassTable(L);
    lua_insert(L, -2);
    SetNestedField(L, -2, name);
    lua_pop(L, 1);
}

void ClassInfo::pushClassTable(lua_State* L) const {
    lua_rawgeti(L, LUA_REGISTRYINDEX, m_ClassTableRef);
}

InstanceBox* ClassInfo::pushInstance(lua_State* L, void* object, bool owned) {
    InstanceBox* box = static_cast<InstanceBox*>(lua_newuserdata(L, sizeof(InstanceBox)));
    *box = InstanceBox{object, this, owned};
    lua_rawgeti(L, LUA_REGISTRYINDEX, m_MetatableRef);
    lua_setmetatable(L, -2);
    return box;
}

void ClassInfo::push_ptr(lua_State* L, void* object, bool fromConstructor) {
    if (object) {
        pushInstance(L, object, fromConstructor);
    } else {
        lua_pushnil(L);
    }
}

void* ClassInfo::convertTo(void* object, const std::string& targetKey) const {
    if (!object || targetKey == m_TypeKey) {
        return object;
    }
    for (const Base& base : m_Bases) {
        void* adjusted = base.cast(object);
        if (base.key == targetKey) {
            return adjusted;
        }
        if (const ClassInfo* baseClass = m_Manager.getClass(base.key)) {
            if (void* found = baseClass->convertTo(adjusted, targetKey)) {
                return found;
            }
        }
    }
    return nullptr;
}

InstanceBox* ClassInfo::toInstance(lua_State* L, int index) {
    if (lua_type(L, index) != LUA_TUSERDATA || lua_rawlen(L, index) != sizeof(InstanceBox) ||
        !lua_getmetatable(L, index)) {
        return nullptr;
    }
    lua_rawgetp(L, -1, &kInstanceTag);
    const bool ours = lua_toboolean(L, -1);
    lua_pop(L, 2);
    return ours ? static_cast<InstanceBox*>(lua_touserdata(L, index)) : nullptr;
}

// __index of a class table (table, key): the member of the first declared
// base that has it, searched depth first.
int ClassInfo::ClassIndex(lua_State* L) {
    const ClassInfo* self = UpvalueClass(L);
    for (size_t i = 0; i < self->m_Bases.size(); ++i) {
        const ClassInfo* base = self->m_Manager.getClass(self->m_Bases[i].key);
        if (!base) {
            continue;
        }
        base->pushClassTable(L);
        lua_pushvalue(L, 2);
        lua_gettable(L, -2);
        if (!lua_isnil(L, -1)) {
            return 1;
        }
        lua_pop(L, 2);
    }
    lua_pushnil(L);
    return 1;
}

int ClassInfo::ClassToString(lua_State* L) {
    const ClassInfo* self = UpvalueClass(L);
    if (self->m_Info.empty()) {
        lua_pushfstring(L, "class %s", self->m_Name.c_str());
    } else {
        lua_pushfstring(L, "class %s: %s", self->m_Name.c_str(), self->m_Info.c_str());
    }
    return 1;
}

int ClassInfo::NoConstructor(lua_State* L) {
    return luaL_error(L, "Class %s has no constructor", UpvalueClass(L)->m_Name.c_str());
}

// Destroys the object of an owned instance, once.
int ClassInfo::InstanceGc(lua_State* L) {
    InstanceBox* box = toInstance(L, 1);
    if (box && box->owned && box->object) {
        void* object = box->object;
        box->object = nullptr;
        box->owned = false;
        box->cls->destroy(object);
    }
    return 0;
}

int ClassInfo::InstanceToString(lua_State* L) {
    const InstanceBox* box = toInstance(L, 1);
    if (!box) {
        return luaL_argerror(L, 1, "instance expected");
    }
    lua_pushfstring(L, "%s: %p", box->cls->m_Name.c_str(), box->object);
    return 1;
}

}  // namespace SLB
