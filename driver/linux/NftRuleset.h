// CNftRuleset: the project's nftables table "inet vexil" in the network
// namespace of the thread that made the object: loading it from the template
// (vexil.nft), removing it, and adding timed blocks to its address sets.
// Every change is one nftables transaction through libnftables, and nft's own
// error text is kept for the caller.
//
// Threads: one object is used by one thread at a time; it takes no lock.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct nft_ctx;

namespace NORVI {

class CNftRuleset {
public:
    CNftRuleset();
    ~CNftRuleset();
    CNftRuleset(const CNftRuleset&) = delete;
    CNftRuleset& operator=(const CNftRuleset&) = delete;

    // The ruleset text: the template (placeholders {{log:<verdict>}}, {{tcp_elements}},
    // {{udp_elements}}) filled with the NFLOG group and the allowed inbound TCP and UDP ports.
    // Empty with the reason in error when the group is out of range or the template names an
    // unknown verdict.
    static std::string Fill(int group, const std::vector<uint16_t>& tcpPorts,
                            const std::vector<uint16_t>& udpPorts, std::string& error);

    // Loads the ruleset, replacing a table of the same name in one
    // transaction. 0 or an errno value, with nft's text in error.
    int Install(int group, const std::vector<uint16_t>& tcpPorts,
                const std::vector<uint16_t>& udpPorts, std::string& error);
    // Deletes the table. 0 or an errno value.
    int Remove(std::string& error);
    // Blocks an address (IPv4 or IPv6 text) for milliseconds (1 or more): the
    // element is added, deleted and added again in one transaction, so that
    // an existing block starts its time afresh. 0 or an errno value.
    int Block(const std::string& address, uint32_t milliseconds, std::string& error);

    // Runs nft commands as one transaction. 0 or an errno value.
    int Run(const std::string& commands, std::string& error);

private:
    nft_ctx* m_Context;  // null when libnftables could not make one
};

}  // namespace NORVI
