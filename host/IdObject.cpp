#include "host/IdObject.h"

namespace NorvCore {

CIdObject::CIdObject(bool printDefaults) : XMLObject(printDefaults, true) {
    AddAttribute(L"id", &m_Id, 0, false);
}

CIdNameObject::CIdNameObject(bool printDefaults) : CIdObject(printDefaults) {
    AddAttribute(L"name", &m_Name, false);
}

}  // namespace NorvCore
