#include "ssl/SSLHostConfiguration.h"

namespace VEXIL {

CSSLHostConfiguration::CSSLHostConfiguration() : CIdNameObject(true) {
    AddAttribute(L"allInterfaces", &m_AllInterfaces, false);
    AddAttribute(L"sslCredentialId", &m_SslCredentialId, 0, false);
    AddAttribute(L"specificIP", &m_SpecificIP, false);
    AddChild(&m_AddressInfo);
}

CSSLHostConfiguration::~CSSLHostConfiguration() = default;

wxString CSSLHostConfiguration::GetElementName() const {
    return wxS("SSLHostConfiguration");
}

}  // namespace VEXIL
