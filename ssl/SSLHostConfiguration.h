// CSSLHostConfiguration: one SSL host configuration of the security
// configuration, the XML element "SSLHostConfiguration": which credential
// holds the private key for the servers that the configuration covers.
//
// The driver chooses the configuration by address and names it by id in its
// requests, so only the id, the name and sslCredentialId are read here; the
// other values are carried so that records print and copy whole.
//
// Thread safety: none of its own, as for CSSLCredential.
#pragma once

#include <wx/string.h>

#include "config/AddressInfo.h"
#include "host/IdObject.h"

namespace VEXIL {

class CSSLHostConfiguration : public NorvCore::CIdNameObject {
public:
    CSSLHostConfiguration();
    ~CSSLHostConfiguration() override;

    wxString GetElementName() const override;

    // The bound values and the child, in registration order.
    bool m_AllInterfaces;        // "allInterfaces": applies on every interface
    int m_SslCredentialId;       // "sslCredentialId": id of the CSSLCredential to use
    wxString m_SpecificIP;       // "specificIP": the one address it applies to
    CAddressInfo m_AddressInfo;  // child "AddressInfo": address criteria
};

}  // namespace VEXIL
