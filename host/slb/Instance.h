// Instances: C++ objects seen from Lua, and the functions that move them
// across the stack.
//
// An instance is a full userdata holding an InstanceBox. Objects cross by
// pointer only (the no-copy policy); an instance owned by the script destroys
// its object when collected, others leave it alive. These functions run on
// the thread of the interpreter they are given.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include <lua.hpp>

#include "host/slb/TypeID.h"

namespace SLB {

namespace Instance {
// Instance policy: objects are never copied into Lua, only referred to.
struct NoCopy {};
}  // namespace Instance

// The allocator of objects made by script constructors.
void* Malloc(size_t size);
void Free(void* memory);

// Sets or clears the script's ownership of the instance at index. False when
// the value there is no instance.
bool scriptOwnsInstance(lua_State* L, int index, bool owned);

namespace detail {
// The object at index as a pointer to the class with typeKey, or null when the
// value is not an instance of that class or of a class derived from it.
// Raises "Unknown class %s" when that class is not registered.
void* getPointer(lua_State* L, int index, const std::string& typeKey);
// Pushes object as an instance of the class with typeKey that the script does
// not own; nil for null. Raises "Unknown class %s" when it is not registered.
void pushPointer(lua_State* L, void* object, const std::string& typeKey);
}  // namespace detail

// get<T*>(L, index): the instance at index as a T*, or null.
template <class P>
P get(lua_State* L, int index) {
    static_assert(std::is_pointer<P>::value, "SLB::get fetches pointers to registered classes");
    using T = std::remove_cv_t<std::remove_pointer_t<P>>;
    return static_cast<P>(detail::getPointer(L, index, TypeID<T>::Key()));
}

// Pushes p as an instance of T that the script does not own.
template <class T>
void push(lua_State* L, T* p) {
    using Plain = std::remove_cv_t<T>;
    detail::pushPointer(L, const_cast<Plain*>(p), TypeID<Plain>::Key());
}

}  // namespace SLB
