#include "host/slb/TypeID.h"

#include <cxxabi.h>

#include <cstdlib>

namespace SLB {

std::string MakeTypeKey(const std::type_info& type, bool isClass) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = (status == 0 && demangled) ? demangled : type.name();
    std::free(demangled);
    return std::string("SLB::TypeID<") + (isClass ? "class " : "") + name + ">::Name";
}

}  // namespace SLB
