// CServiceList: the allowed inbound services, parsed once from the text
// "tcp:22,tcp:80,udp:53" that both record sources take (the live ruleset
// fills its service sets from it, the capture model decides by it).
//
// Threads: a value; read from any thread once parsed.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace NORVI {

class CServiceList {
public:
    // Parses text: comma-separated items "tcp:<port>" or "udp:<port>", port
    // 1 to 65535, blanks around items allowed, the empty text for none.
    // False with the reason in error, and the list unchanged, otherwise.
    bool Parse(const std::string& text, std::string& error);

    bool AllowsTcp(uint16_t port) const;
    bool AllowsUdp(uint16_t port) const;
    // The ports in ascending order, each once.
    const std::vector<uint16_t>& TcpPorts() const { return m_Tcp; }
    const std::vector<uint16_t>& UdpPorts() const { return m_Udp; }

private:
    std::vector<uint16_t> m_Tcp;
    std::vector<uint16_t> m_Udp;
};

}  // namespace NORVI
