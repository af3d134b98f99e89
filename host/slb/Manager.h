// Manager: the binder's registry of classes for one Lua interpreter.
//
// One manager per interpreter, kept in the Lua registry and destroyed when
// the interpreter is closed. It owns the ClassInfo of every class registered
// in that interpreter, keyed by type key, and the global table SLB under
// which class tables are placed ("vexil::LogData" is SLB.vexil.LogData).
// SLB.using(t) makes the entries of t reachable as globals.
//
// A manager belongs to the thread that runs its interpreter; it has no lock.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <lua.hpp>

#include "host/slb/ClassInfo.h"

namespace SLB {

class Manager {
public:
    // The manager of L's interpreter, or null where none was set up.
    static Manager* getInstance(lua_State* L);
    // Sets up a manager in L's interpreter, or returns the existing one; either
    // way the global SLB is there afterwards.
    static Manager* createInstance(lua_State* L);

    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The class registered under typeKey, or null.
    ClassInfo* getClass(const std::string& typeKey) const;
    // The class under typeKey; a new one is placed under name in SLB.
    ClassInfo* getOrCreateClass(const std::string& typeKey, const std::string& name);
    // Takes the class out of the manager: its constructor and its methods no
    // longer find it. Its instances stay valid. False when it was not there.
    bool removeClass(const std::string& typeKey);

    // The interpreter's main thread, on which registration works.
    lua_State* state() const { return m_State; }

private:
    explicit Manager(lua_State* mainThread) : m_State(mainThread) {}
    ~Manager() = default;

    static int Collect(lua_State* L);

    lua_State* m_State;
    int m_RootRef = LUA_NOREF;  // registry reference of the table SLB
    std::map<std::string, std::unique_ptr<ClassInfo>> m_Classes;
    // Removed classes, kept for their instances until the interpreter closes.
    std::vector<std::unique_ptr<ClassInfo>> m_Removed;
};

// Pops the value on top of L's stack into the table at tableIndex under path,
// where "::" separates nested tables, made as needed ("a::b" is t.a.b).
void SetNestedField(lua_State* L, int tableIndex, const std::string& path);

}  // namespace SLB
