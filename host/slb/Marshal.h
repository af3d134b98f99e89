// Marshalling of bound-method and constructor arguments and results.
//
// Arg<T> converts one Lua value to a C++ argument of type T. Its check()
// runs first for every argument and is the only step that may raise a Lua
// error; conversion itself never raises, so no C++ object is alive when Lua
// unwinds the call. Lua raises errors by longjmp, which skips destructors.
//
//   wxString             lua_tolstring, UTF-8; neither string nor number gives ""
//   std::string          the string's bytes; anything else is an argument error
//   int, long, unsigned  lua_tointegerx, truncated to 32 bits
//   bool                 lua_toboolean
//   const wchar_t*       from a UTF-8 string, null for nil; alive for the call
//   T&, T* (registered)  SLB::get; a reference that cannot be had is an
//                        argument error naming the class, a pointer is null
//
// Results: void gives no values; bool, integers and text (wxString and
// std::string, also by reference, as copies) give one.
#pragma once

#include <cstdio>
#include <exception>
#include <string>
#include <type_traits>
#include <utility>

#include <wx/string.h>
#include <lua.hpp>

#include "host/Types.h"
#include "host/slb/Instance.h"

namespace SLB {

namespace detail {

wxString ToWxString(lua_State* L, int index);
void PushWxString(lua_State* L, const wxString& text);
// Raises the argument error "<class name> expected, got <type>" for index.
void RaiseClassExpected(lua_State* L, int index, const std::string& typeKey);

// Runs body, which pushes results and returns their count. A C++ exception
// becomes a Lua error, raised only after body's objects are gone.
template <class Body>
int Protect(lua_State* L, Body&& body) {
    char reason[256];
    try {
        return body();
    } catch (const std::exception& e) {
        std::snprintf(reason, sizeof reason, "%s", e.what());
    } catch (...) {
        std::snprintf(reason, sizeof reason, "unknown C++ exception");
    }
    return luaL_error(L, "%s", reason);
}

template <class T, class Enable = void>
struct Arg;

template <>
struct Arg<wxString> {
    static void check(lua_State*, int) {}
    Arg(lua_State* L, int index) : m_Value(ToWxString(L, index)) {}
    wxString& get() { return m_Value; }
    wxString m_Value;
};

template <>
struct Arg<std::string> {
    static void check(lua_State* L, int index) { luaL_checkstring(L, index); }
    Arg(lua_State* L, int index) {
        size_t length = 0;
        const char* text = lua_tolstring(L, index, &length);
        m_Value.assign(text, length);
    }
    std::string& get() { return m_Value; }
    std::string m_Value;
};

template <>
struct Arg<bool> {
    static void check(lua_State*, int) {}
    Arg(lua_State* L, int index) : m_Value(lua_toboolean(L, index) != 0) {}
    bool get() const { return m_Value; }
    bool m_Value;
};

template <class T>
struct Arg<T, std::enable_if_t<std::is_integral<T>::value>> {
    static void check(lua_State*, int) {}
    Arg(lua_State* L, int index) {
        const lua_Integer value = lua_tointegerx(L, index, nullptr);
        if constexpr (std::is_signed<T>::value) {
            m_Value = static_cast<T>(static_cast<i32>(value));
        } else {
            m_Value = static_cast<T>(static_cast<u32>(value));
        }
    }
    T get() const { return m_Value; }
    T m_Value;
};

template <>
struct Arg<const wchar_t*> {
    static void check(lua_State*, int) {}
    Arg(lua_State* L, int index) : m_Null(!lua_isstring(L, index)) {
        if (!m_Null) {
            m_Value = ToWxString(L, index).ToStdWstring();
        }
    }
    const wchar_t* get() const { return m_Null ? nullptr : m_Value.c_str(); }
    bool m_Null;
    std::wstring m_Value;
};

// A registered class, taken by reference.
template <class T>
struct Arg<T, std::enable_if_t<std::is_class<T>::value>> {
    static void check(lua_State* L, int index) {
        if (!SLB::get<T*>(L, index)) {
            RaiseClassExpected(L, index, TypeID<T>::Key());
        }
    }
    Arg(lua_State* L, int index) : m_Value(SLB::get<T*>(L, index)) {}
    T& get() { return *m_Value; }
    T* m_Value;
};

// A registered class, taken by pointer: null when the value is not one.
template <class T>
struct Arg<T*, std::enable_if_t<std::is_class<T>::value>> {
    static void check(lua_State* L, int index) { SLB::get<T*>(L, index); }
    Arg(lua_State* L, int index) : m_Value(SLB::get<T*>(L, index)) {}
    T* get() const { return m_Value; }
    T* m_Value;
};

// The holder for a parameter type: references and const values decay, a
// pointer to a const class keeps its pointee's class.
template <class P>
using ArgFor = Arg<
    std::conditional_t<std::is_pointer<std::decay_t<P>>::value &&
                           std::is_class<std::remove_pointer_t<std::decay_t<P>>>::value,
                       std::remove_cv_t<std::remove_pointer_t<std::decay_t<P>>>*, std::decay_t<P>>>;

inline void PushValue(lua_State* L, bool value) {
    lua_pushboolean(L, value);
}
inline void PushValue(lua_State* L, const wxString& value) {
    PushWxString(L, value);
}
inline void PushValue(lua_State* L, const std::string& value) {
    lua_pushlstring(L, value.data(), value.size());
}
template <class T, class = std::enable_if_t<std::is_integral<T>::value>>
void PushValue(lua_State* L, T value) {
    lua_pushinteger(L, static_cast<lua_Integer>(value));
}

// Calls f and pushes what it returns; the number of values pushed.
template <class R>
struct Result {
    template <class F>
    static int call(lua_State* L, F&& f) {
        PushValue(L, f());
        return 1;
    }
};

template <>
struct Result<void> {
    template <class F>
    static int call(lua_State*, F&& f) {
        f();
        return 0;
    }
};

// Raises "Error number of arguments (given %d -> expected %d)" unless given
// equals expected.
void CheckArgumentCount(lua_State* L, int given, int expected);

// Checks the arguments for parameters A... that start at first.
template <class... A, size_t... I>
void CheckArgs([[maybe_unused]] lua_State* L, [[maybe_unused]] int first,
               std::index_sequence<I...>) {
    (ArgFor<A>::check(L, first + static_cast<int>(I)), ...);
}

}  // namespace detail

}  // namespace SLB
