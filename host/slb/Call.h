// The Lua C functions that the binder generates for constructors and bound
// methods. Each one checks everything that can raise a Lua error first
// (argument count, object, arguments), then converts and calls inside
// detail::Protect, so that neither a longjmp crosses live C++ objects nor a
// C++ exception reaches Lua.
#pragma once

#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include <lua.hpp>

#include "host/slb/ClassInfo.h"
#include "host/slb/Marshal.h"

namespace SLB {

namespace detail {

// The class for a constructor of typeKey; raises "Class %s is not avaliable! "
// when it is not registered in L's interpreter.
ClassInfo* ClassForConstructor(lua_State* L, const std::string& typeKey);

template <class T>
void DestroyObject(void* object) {
    static_cast<T*>(object)->~T();
    Free(object);
}

template <class T, class B>
void* UpCast(void* object) {
    return static_cast<B*>(static_cast<T*>(object));
}

// Stores the constructor's arguments (positions 1 to count) in the uservalue
// of the instance on top of the stack. An object that the new one was given
// by reference, such as the host store, then lives at least as long as it,
// whatever the script does with its own reference.
void KeepArgumentsAlive(lua_State* L, int count);

// __call of a class table: (class table, arguments...). The object is made
// with Malloc and belongs to the script.
template <class T, class... A>
struct ConstructorCall {
    static int call(lua_State* L) {
        lua_remove(L, 1);
        CheckArgumentCount(L, lua_gettop(L), static_cast<int>(sizeof...(A)));
        ClassInfo* cls = ClassForConstructor(L, TypeID<T>::Key());
        CheckArgs<A...>(L, 1, std::index_sequence_for<A...>{});
        // The instance is pushed before the object is made, so that a Lua
        // memory error cannot leak the object.
        InstanceBox* box = cls->pushInstance(L, nullptr, false);
        KeepArgumentsAlive(L, static_cast<int>(sizeof...(A)));
        void* memory = Malloc(sizeof(T));
        if (!memory) {
            lua_pushnil(L);
            return 1;
        }
        return Protect(L, [&] { return make(L, box, memory, std::index_sequence_for<A...>{}); });
    }

    template <size_t... I>
    static int make([[maybe_unused]] lua_State* L, InstanceBox* box, void* memory,
                    std::index_sequence<I...>) {
        std::tuple<ArgFor<A>...> args{ArgFor<A>(L, 1 + static_cast<int>(I))...};
        try {
            new (memory) T(std::get<I>(args).get()...);
        } catch (...) {
            Free(memory);
            throw;
        }
        box->object = memory;
        box->owned = true;
        return 1;
    }
};

// A bound method: (object, arguments...); M is the member function pointer
// type, kept in upvalue 1.
template <class T, class M, class R, class... A>
struct MethodCall {
    static void push(lua_State* L, M method) {
        void* slot = lua_newuserdata(L, sizeof(M));
        std::memcpy(slot, &method, sizeof(M));
        lua_pushcclosure(L, call, 1);
    }

    static int call(lua_State* L) {
        CheckArgumentCount(L, lua_gettop(L) - 1, static_cast<int>(sizeof...(A)));
        T* self = SLB::get<T*>(L, 1);
        if (!self) {
            return luaL_error(L, "Invalid object for this method");
        }
        CheckArgs<A...>(L, 2, std::index_sequence_for<A...>{});
        M method;
        std::memcpy(&method, lua_touserdata(L, lua_upvalueindex(1)), sizeof(M));
        return Protect(L, [&] { return invoke(L, self, method, std::index_sequence_for<A...>{}); });
    }

    template <size_t... I>
    static int invoke(lua_State* L, T* self, M method, std::index_sequence<I...>) {
        std::tuple<ArgFor<A>...> args{ArgFor<A>(L, 2 + static_cast<int>(I))...};
        return Result<R>::call(L,
                               [&]() -> R { return (self->*method)(std::get<I>(args).get()...); });
    }
};

// Splits a member function pointer type into its class, result and
// parameters.
template <class M>
struct MemberTraits;

template <class C, class R, class... A>
struct MemberTraits<R (C::*)(A...)> {
    using Class = C;
    template <class T>
    using Call = MethodCall<T, R (C::*)(A...), R, A...>;
};
template <class C, class R, class... A>
struct MemberTraits<R (C::*)(A...) const> {
    using Class = C;
    template <class T>
    using Call = MethodCall<T, R (C::*)(A...) const, R, A...>;
};
template <class C, class R, class... A>
struct MemberTraits<R (C::*)(A...) noexcept> {
    using Class = C;
    template <class T>
    using Call = MethodCall<T, R (C::*)(A...) noexcept, R, A...>;
};
template <class C, class R, class... A>
struct MemberTraits<R (C::*)(A...) const noexcept> {
    using Class = C;
    template <class T>
    using Call = MethodCall<T, R (C::*)(A...) const noexcept, R, A...>;
};

}  // namespace detail

}  // namespace SLB
