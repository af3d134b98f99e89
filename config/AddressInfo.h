// CIpPortInfo and CAddressInfo: XML-mapped match criteria on IP address,
// hardware address and port.
//
// The records only carry the values of the configuration: nothing in this
// system evaluates the criteria. They parse them and print them back without
// loss, as the child element "AddressInfo" of an SSL host configuration.
//
// Thread safety: none of their own. A record belongs to the thread that made
// it, or to the lock of the object that holds it.
#pragma once

#include <wx/string.h>

#include "host/XMLObject.h"

namespace VEXIL {

class CIpPortInfo : public NorvCore::XMLObject {
public:
    CIpPortInfo();
    ~CIpPortInfo() override;

    // The bound values, in binding order. Kinds (the *Type members) are
    // passed along and never compared here.
    int m_IpType;       // "ipType": kind of IP criterion
    wxString m_Ip;      // "ip": single address
    wxString m_IpMask;  // "ipMask"
    wxString m_IpFrom;  // "ipFrom": first address of a range
    wxString m_IpTo;    // "ipTo": last address of a range
    int m_IpListId;     // "ipListId": id of an address list
    bool m_IpNot;       // "ipNot": inverts the IP criterion
    wxString m_Mac;     // "mac": hardware address
    int m_MacListId;    // "macListId": id of a list of hardware addresses
    bool m_MacNot;      // "macNot": inverts the MAC criterion
    int m_MacType;      // "macType": kind of MAC criterion
    int m_PortType;     // "portType": kind of port criterion
    wxString m_Ports;   // "ports"
    int m_PortListId;   // "portListId": id of a port list
    bool m_PortNot;     // "portNot": inverts the port criterion
};

// The same record under the element name "AddressInfo".
class CAddressInfo : public CIpPortInfo {
public:
    wxString GetElementName() const override;
};

}  // namespace VEXIL
