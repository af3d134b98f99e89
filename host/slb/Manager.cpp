#include "host/slb/Manager.h"

namespace SLB {

namespace {

// Registry key of the manager's userdata: the address of this object.
const char kManagerKey = 0;

// __index of the global table's metatable set by SLB.using. Upvalue 1 lists
// the used tables, searched in the order they were given; upvalue 2 is the
// __index that was there before (table, function or nil), tried last.
int UsingIndex(lua_State* L) {
    const int used = lua_upvalueindex(1);
    const int previous = lua_upvalueindex(2);
    const int count = static_cast<int>(lua_rawlen(L, used));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, used, i);
        lua_pushvalue(L, 2);
        lua_rawget(L, -2);
        if (!lua_isnil(L, -1)) {
            return 1;
        }
        lua_pop(L, 2);
    }
    switch (lua_type(L, previous)) {
        case LUA_TNIL:
            lua_pushnil(L);
            break;
        case LUA_TFUNCTION:
            lua_pushvalue(L, previous);
            lua_pushvalue(L, 1);
            lua_pushvalue(L, 2);
            lua_call(L, 2, 1);
            break;
        default:
            lua_pushvalue(L, previous);
            lua_pushvalue(L, 2);
            lua_gettable(L, -2);
            break;
    }
    return 1;
}

// SLB.using(t): the entries of t become reachable as globals. A global of
// the same name, and any __index the global table already had, come first.
int Using(lua_State* L) {
    luaL_checktype(L, 1, LUA_TTABLE);
    lua_settop(L, 1);
    lua_pushglobaltable(L);  // 2
    if (!lua_getmetatable(L, 2)) {
        lua_newtable(L);
        lua_pushvalue(L, -1);
        lua_setmetatable(L, 2);
    }
    lua_pushliteral(L, "__index");  // 4
    lua_rawget(L, 3);               // 4: the current __index
    if (lua_tocfunction(L, 4) == UsingIndex) {
        lua_getupvalue(L, 4, 1);  // 5: the list of used tables
        const int count = static_cast<int>(lua_rawlen(L, 5));
        for (int i = 1; i <= count; ++i) {
            lua_rawgeti(L, 5, i);
            const bool known = lua_rawequal(L, -1, 1);
            lua_pop(L, 1);
            if (known) {
                return 0;
            }
        }
        lua_pushvalue(L, 1);
        lua_rawseti(L, 5, count + 1);
        return 0;
    }
    lua_createtable(L, 1, 0);  // 5
    lua_pushvalue(L, 1);
    lua_rawseti(L, 5, 1);
    lua_pushvalue(L, 4);
    lua_pushcclosure(L, UsingIndex, 2);
    lua_pushliteral(L, "__index");
    lua_insert(L, -2);
    lua_rawset(L, 3);
    return 0;
}

}  // namespace

Manager* Manager::getInstance(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &kManagerKey);
    Manager* manager = nullptr;
    if (lua_type(L, -1) == LUA_TUSERDATA) {
        manager = *static_cast<Manager**>(lua_touserdata(L, -1));
    }
    lua_pop(L, 1);
    return manager;
}

Manager* Manager::createInstance(lua_State* L) {
    if (Manager* existing = getInstance(L)) {
        // A script may have dropped the global (a test runner restoring its
        // globals does); setting up again brings it back.
        lua_getglobal(L, "SLB");
        const bool present = !lua_isnil(L, -1);
        lua_pop(L, 1);
        if (!present) {
            lua_rawgeti(L, LUA_REGISTRYINDEX, existing->m_RootRef);
            lua_setglobal(L, "SLB");
        }
        return existing;
    }
    // The userdata comes first, so that a Lua memory error cannot leak the
    // manager; its finalizer deletes what it holds.
    Manager** slot = static_cast<Manager**>(lua_newuserdata(L, sizeof(Manager*)));
    *slot = nullptr;
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, Collect);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);

    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_MAINTHREAD);
    Manager* manager = new Manager(lua_tothread(L, -1));
    lua_pop(L, 1);
    *slot = manager;
    lua_rawsetp(L, LUA_REGISTRYINDEX, &kManagerKey);

    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, Using);
    lua_setfield(L, -2, "using");
    lua_pushvalue(L, -1);
    lua_setglobal(L, "SLB");
    manager->m_RootRef = luaL_ref(L, LUA_REGISTRYINDEX);
    return manager;
}

int Manager::Collect(lua_State* L) {
    Manager** slot = static_cast<Manager**>(lua_touserdata(L, 1));
    delete *slot;
    *slot = nullptr;
    return 0;
}

ClassInfo* Manager::getClass(const std::string& typeKey) const {
    auto found = m_Classes.find(typeKey);
    return found == m_Classes.end() ? nullptr : found->second.get();
}

ClassInfo* Manager::getOrCreateClass(const std::string& typeKey, const std::string& name) {
    if (ClassInfo* existing = getClass(typeKey)) {
        return existing;
    }
    lua_State* L = m_State;
    lua_checkstack(L, 8);
    auto cls = std::make_unique<ClassInfo>(L, *this, typeKey, name);
    lua_rawgeti(L, LUA_REGISTRYINDEX, m_RootRef);
    cls->pushClassTable(L);
    SetNestedField(L, -2, name);
    lua_pop(L, 1);
    ClassInfo* result = cls.get();
    m_Classes.emplace(typeKey, std::move(cls));
    return result;
}

bool Manager::removeClass(const std::string& typeKey) {
    auto found = m_Classes.find(typeKey);
    if (found == m_Classes.end()) {
        return false;
    }
    m_Removed.push_back(std::move(found->second));
    m_Classes.erase(found);
    return true;
}

void SetNestedField(lua_State* L, int tableIndex, const std::string& path) {
    lua_checkstack(L, 6);
    lua_pushvalue(L, tableIndex);  // value, table
    size_t start = 0;
    for (size_t separator = path.find("::"); separator != std::string::npos;
         separator = path.find("::", start)) {
        lua_pushlstring(L, path.data() + start, separator - start);  // value, table, key
        lua_pushvalue(L, -1);
        lua_rawget(L, -3);  // value, table, key, sub
        if (!lua_istable(L, -1)) {
            lua_pop(L, 1);
            lua_newtable(L);
            lua_pushvalue(L, -2);
            lua_pushvalue(L, -2);
            lua_rawset(L, -5);
        }
        lua_replace(L, -3);  // value, sub, key
        lua_pop(L, 1);       // value, sub
        start = separator + 2;
    }
    lua_pushlstring(L, path.data() + start, path.size() - start);  // value, table, key
    lua_pushvalue(L, -3);
    lua_rawset(L, -3);  // value, table
    lua_pop(L, 2);
}

}  // namespace SLB
