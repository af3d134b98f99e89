// CSSLHostConfigurations: the list of SSL host configurations, the XML
// element "SSLHostConfigurations" with its "SSLHostConfiguration" items, as
// the security configuration holds them under
// /SecurityConfiguration/SSLHostConfigurations.
//
// Thread safety: none of its own; CSSLCertThread guards its copy with its
// configuration lock.
#pragma once

#include "host/XMLObjectList.h"

namespace VEXIL {

class CSSLHostConfigurations : public NorvCore::XMLObjectList {
public:
    CSSLHostConfigurations();
    ~CSSLHostConfigurations() override;

    wxString GetElementName() const override;
    wxString GetChildElementName() const override;
    // A new CSSLHostConfiguration, or null when memory runs out.
    NorvCore::XMLObject* CreateChild() const override;
};

}  // namespace VEXIL
