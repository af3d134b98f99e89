// CSSLCredentials: the list of SSL credentials, the XML element
// "SSLCredentials" with its "SSLCredential" items, as the security
// configuration holds them under /SecurityConfiguration/SSLCredentials.
//
// Thread safety: none of its own; CSSLCertThread guards its copy with its
// configuration lock.
#pragma once

#include "host/XMLObjectList.h"

namespace VEXIL {

class CSSLCredentials : public NorvCore::XMLObjectList {
public:
    CSSLCredentials();
    ~CSSLCredentials() override;

    wxString GetElementName() const override;
    wxString GetChildElementName() const override;
    // A new CSSLCredential, or null when memory runs out.
    NorvCore::XMLObject* CreateChild() const override;
};

}  // namespace VEXIL
