// Class<T>: registers the C++ class T with a manager, one member at a time.
//
//   SLB::Class<Foo, SLB::Instance::NoCopy>("ns::Foo", manager)
//       .setInfo("...")
//       .constructor<Bar&>()
//       .inherits<Base>()
//       .set("Raw", SLB::FuncCall::create(RawLua))
//       .set("Method", &Foo::Method)
//       .set("Group::Constant", 42);
//
// Registration works on the manager's interpreter, on its thread; a class
// registered again keeps its table and gets the new members.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include <lua.hpp>

#include "host/slb/Call.h"
#include "host/slb/FuncCall.h"
#include "host/slb/Manager.h"

namespace SLB {

template <class T, class Policy = Instance::NoCopy>
class Class {
    static_assert(std::is_same<Policy, Instance::NoCopy>::value,
                  "objects cross into Lua by pointer only");

public:
    Class(const std::string& name, Manager* manager)
        : m_State(manager->state()), m_Class(manager->getOrCreateClass(TypeID<T>::Key(), name)) {
        m_Class->setDestructor(&detail::DestroyObject<T>);
    }

    Class& setInfo(const std::string& info) {
        m_Class->setInfo(info);
        return *this;
    }

    // Makes the class table callable: Lua "ns.Foo(a, b)" runs T(a, b).
    template <class... A>
    Class& constructor() {
        static_assert(alignof(T) <= alignof(std::max_align_t), "Malloc cannot align T");
        m_Class->setConstructor(m_State, &detail::ConstructorCall<T, A...>::call);
        return *this;
    }

    // Instances of T can be used where a B is expected, and find B's members.
    template <class B>
    Class& inherits() {
        static_assert(std::is_base_of<B, T>::value && !std::is_same<B, T>::value,
                      "B must be a base of T");
        m_Class->addBase(TypeID<B>::Key(), &detail::UpCast<T, B>);
        return *this;
    }

    Class& set(const std::string& name, const FuncCall& function) {
        lua_checkstack(m_State, 2);
        lua_pushcfunction(m_State, function.function());
        m_Class->setMember(m_State, name);
        return *this;
    }

    // A bound method of T or of one of its bases.
    template <class M, std::enable_if_t<std::is_member_function_pointer<M>::value, int> = 0>
    Class& set(const std::string& name, M method) {
        using Traits = detail::MemberTraits<M>;
        static_assert(std::is_base_of<typename Traits::Class, T>::value,
                      "the method must belong to T or a base of T");
        lua_checkstack(m_State, 3);
        Traits::template Call<T>::push(m_State, method);
        m_Class->setMember(m_State, name);
        return *this;
    }

    // An integer or boolean constant, copied into the class table.
    template <class V, std::enable_if_t<std::is_integral<V>::value, int> = 0>
    Class& set(const std::string& name, V value) {
        lua_checkstack(m_State, 2);
        detail::PushValue(m_State, value);
        m_Class->setMember(m_State, name);
        return *this;
    }

private:
    lua_State* m_State;
    ClassInfo* m_Class;
};

}  // namespace SLB
