// Type keys: the text under which the binder knows a C++ type.
//
// A key is built from the demangled C++ name, for example
// "SLB::TypeID<class NorvCore::CDom>::Name". Keys are plain strings so that
// every module loaded into one interpreter agrees on them, whatever the
// visibility of its type information. Keys are computed once per type and
// are immutable afterwards, so any thread may read them.
#pragma once

#include <string>
#include <type_traits>
#include <typeinfo>

namespace SLB {

// The key text for a type: "SLB::TypeID<class X>::Name" for class types,
// "SLB::TypeID<X>::Name" for the others.
std::string MakeTypeKey(const std::type_info& type, bool isClass);

template <class T>
struct TypeID {
    // The key, computed once; no allocation after the first call.
    static const std::string& Key() {
        static const std::string key = MakeTypeKey(typeid(T), std::is_class<T>::value);
        return key;
    }
    static std::string Name() { return Key(); }
};

}  // namespace SLB
