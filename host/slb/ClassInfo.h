// ClassInfo: what the binder knows of one registered C++ class.
//
// Each class has a Lua class table (its members, reachable under the global
// table SLB by the class name) and an instance metatable shared by all its
// instances. Instances are full userdata holding an InstanceBox. Declared
// bases are kept by type key with a cast function, so that an instance can be
// used where a base is expected, with the pointer adjusted as C++ does it.
//
// A ClassInfo belongs to its Manager and lives as long as the interpreter,
// even after removal from the manager, because instances point to it. It is
// used only on the thread that runs the interpreter.
#pragma once

#include <string>
#include <vector>

#include <lua.hpp>

namespace SLB {

class ClassInfo;
class Manager;

// The contents of an instance userdata.
struct InstanceBox {
    void* object;    // the C++ object, of the box's class exactly; null once gone
    ClassInfo* cls;  // the class the object was pushed as
    bool owned;      // the script owns the object: collection destroys it
};

class ClassInfo {
public:
    using Destroy = void (*)(void* object);
    using Cast = void* (*)(void* object);

    // Creates the class table and the instance metatable in the interpreter
    // of manager; L is the thread to work on.
    ClassInfo(lua_State* L, Manager& manager, const std::string& typeKey, const std::string& name);
    ClassInfo(const ClassInfo&) = delete;
    ClassInfo& operator=(const ClassInfo&) = delete;

    const std::string& name() const { return m_Name; }
    const std::string& typeKey() const { return m_TypeKey; }
    const std::string& info() const { return m_Info; }
    void setInfo(const std::string& info) { m_Info = info; }

    // How an owned object is destroyed at collection.
    void setDestructor(Destroy destroy) { m_Destroy = destroy; }
    void destroy(void* object) const;

    // Declares a base by its type key; cast turns a pointer to this class
    // into a pointer to the base. Later declarations of the same base replace
    // the cast.
    void addBase(const std::string& baseKey, Cast cast);

    // Makes the class table callable with constructor (the class table is
    // argument 1 of the call).
    void setConstructor(lua_State* L, lua_CFunction constructor);
    // Pops the value on top of L's stack into the class table under name;
    // "::" in name separates nested tables.
    void setMember(lua_State* L, const std::string& name);
    void pushClassTable(lua_State* L) const;

    // Pushes a new instance of this class for object (not null).
    InstanceBox* pushInstance(lua_State* L, void* object, bool owned);
    // Pushes object as an instance, nil for null. fromConstructor marks the
    // instance as owned by the script.
    void push_ptr(lua_State* L, void* object, bool fromConstructor = false);

    // object (of this class) as a pointer to the class with targetKey: itself
    // or a declared base, directly or further up. Null when unrelated.
    void* convertTo(void* object, const std::string& targetKey) const;

    // The instance at index, or null when the value there is none.
    static InstanceBox* toInstance(lua_State* L, int index);

private:
    struct Base {
        std::string key;
        Cast cast;
    };

    static int ClassIndex(lua_State* L);
    static int ClassToString(lua_State* L);
    static int NoConstructor(lua_State* L);
    static int InstanceGc(lua_State* L);
    static int InstanceToString(lua_State* L);

    Manager& m_Manager;
    std::string m_TypeKey;
    std::string m_Name;
    std::string m_Info;
    Destroy m_Destroy = nullptr;
    std::vector<Base> m_Bases;
    int m_ClassTableRef;  // registry reference of the class table
    int m_MetatableRef;   // registry reference of the instance metatable
};

}  // namespace SLB
