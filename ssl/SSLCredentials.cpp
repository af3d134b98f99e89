#include "ssl/SSLCredentials.h"

#include <new>

#include "ssl/SSLCredential.h"

namespace VEXIL {

CSSLCredentials::CSSLCredentials() : XMLObjectList(false, true) {}

CSSLCredentials::~CSSLCredentials() = default;

wxString CSSLCredentials::GetElementName() const {
    return wxS("SSLCredentials");
}

wxString CSSLCredentials::GetChildElementName() const {
    return wxS("SSLCredential");
}

NorvCore::XMLObject* CSSLCredentials::CreateChild() const {
    return new (std::nothrow) CSSLCredential;
}

}  // namespace VEXIL
