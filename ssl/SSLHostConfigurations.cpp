#include "ssl/SSLHostConfigurations.h"

#include <new>

#include "ssl/SSLHostConfiguration.h"

namespace VEXIL {

CSSLHostConfigurations::CSSLHostConfigurations() : XMLObjectList(false, true) {}

CSSLHostConfigurations::~CSSLHostConfigurations() = default;

wxString CSSLHostConfigurations::GetElementName() const {
    return wxS("SSLHostConfigurations");
}

wxString CSSLHostConfigurations::GetChildElementName() const {
    return wxS("SSLHostConfiguration");
}

NorvCore::XMLObject* CSSLHostConfigurations::CreateChild() const {
    return new (std::nothrow) CSSLHostConfiguration;
}

}  // namespace VEXIL
