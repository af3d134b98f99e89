#include "driver/linux/NftRuleset.h"

#include <arpa/inet.h>
#include <errno.h>
#include <nftables/libnftables.h>

#include <sstream>
#include <string>

#include "driver/linux/RulesetVerdicts.h"

namespace NORVI {

// The text of vexil.nft, compiled in (RulesetTemplate.cpp is generated).
extern const char kRulesetTemplate[];

namespace {

const char kTable[] = "inet vexil";

// "elements = { 22, 80 }" or nothing.
std::string Elements(const std::vector<uint16_t>& ports) {
    if (ports.empty()) {
        return std::string();
    }
    std::string text = "elements = { ";
    for (size_t index = 0; index < ports.size(); ++index) {
        text += (index == 0 ? "" : ", ") + std::to_string(ports[index]);
    }
    return text + " }";
}

// The errno value that nft's error text stands for; nft gives no number.
int ErrorCode(const std::string& text) {
    if (text.find("Operation not permitted") != std::string::npos) {
        return EPERM;
    }
    if (text.find("No such file or directory") != std::string::npos) {
        return ENOENT;
    }
    return EIO;
}

}  // namespace

CNftRuleset::CNftRuleset() : m_Context(nft_ctx_new(NFT_CTX_DEFAULT)) {
    if (m_Context != nullptr) {
        nft_ctx_buffer_output(m_Context);
        nft_ctx_buffer_error(m_Context);
    }
}

CNftRuleset::~CNftRuleset() {
    if (m_Context != nullptr) {
        nft_ctx_free(m_Context);
    }
}

std::string CNftRuleset::Fill(int group, const std::vector<uint16_t>& tcpPorts,
                              const std::vector<uint16_t>& udpPorts, std::string& error) {
    if (group < 0 || group > 0xffff) {
        error = "NFLOG group " + std::to_string(group) + " is not in 0 to 65535";
        return std::string();
    }
    // The template without its comment lines, which describe the placeholders.
    std::string source;
    std::istringstream lines(kRulesetTemplate);
    for (std::string line; std::getline(lines, line);) {
        const size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] != '#') {
            source += line + "\n";
        }
    }
    std::string text;
    size_t position = 0;
    for (;;) {
        const size_t open = source.find("{{", position);
        if (open == std::string::npos) {
            return text + source.substr(position);
        }
        const size_t close = source.find("}}", open + 2);
        if (close == std::string::npos) {
            error = "ruleset template: unmatched {{";
            return std::string();
        }
        text += source.substr(position, open - position);
        const std::string name = source.substr(open + 2, close - open - 2);
        if (name == "tcp_elements") {
            text += Elements(tcpPorts);
        } else if (name == "udp_elements") {
            text += Elements(udpPorts);
        } else if (name.compare(0, 4, "log:") == 0) {
            const RuleVerdict* verdict = FindRuleVerdict(name.c_str() + 4, name.size() - 4);
            if (verdict == nullptr) {
                error = "ruleset template: unknown verdict " + name;
                return std::string();
            }
            char prefix[64];
            FormatVerdictPrefix(*verdict, prefix, sizeof prefix);
            text +=
                "counter log prefix \"" + std::string(prefix) + "\" group " + std::to_string(group);
        } else {
            error = "ruleset template: unknown placeholder {{" + name + "}}";
            return std::string();
        }
        position = close + 2;
    }
}

int CNftRuleset::Run(const std::string& commands, std::string& error) {
    if (m_Context == nullptr) {
        error = "libnftables could not make a context";
        return ENOMEM;
    }
    const int result = nft_run_cmd_from_buffer(m_Context, commands.c_str());
    const char* const text = nft_ctx_get_error_buffer(m_Context);
    nft_ctx_get_output_buffer(m_Context);  // discards what nft printed
    if (result == 0) {
        return 0;
    }
    error = text != nullptr && text[0] != '\0' ? text : "nft failed without a message";
    while (!error.empty() && error.back() == '\n') {
        error.pop_back();
    }
    return ErrorCode(error);
}

int CNftRuleset::Install(int group, const std::vector<uint16_t>& tcpPorts,
                         const std::vector<uint16_t>& udpPorts, std::string& error) {
    const std::string ruleset = Fill(group, tcpPorts, udpPorts, error);
    if (ruleset.empty()) {
        return EINVAL;
    }
    // Adding the table first makes the delete succeed when there is none.
    return Run(std::string("add table ") + kTable + "\ndelete table " + kTable + "\n" + ruleset,
               error);
}

int CNftRuleset::Remove(std::string& error) {
    return Run(std::string("delete table ") + kTable + "\n", error);
}

int CNftRuleset::Block(const std::string& address, uint32_t milliseconds, std::string& error) {
    if (milliseconds == 0) {
        error = "a block of 0 ms would never expire";
        return EINVAL;
    }
    unsigned char binary[16];
    const char* set;
    if (inet_pton(AF_INET, address.c_str(), binary) == 1) {
        set = "block4";
    } else if (inet_pton(AF_INET6, address.c_str(), binary) == 1) {
        set = "block6";
    } else {
        error = "not an IP address: " + address.substr(0, 64);
        return EINVAL;
    }
    // Seconds and milliseconds: nft takes no more than three digits of the latter.
    const std::string timeout =
        std::to_string(milliseconds / 1000) + "s" + std::to_string(milliseconds % 1000) + "ms";
    const std::string element = std::string(kTable) + " " + set + " { " + address;
    return Run("add element " + element + " timeout " + timeout + " }\n" + "delete element " +
                   element + " }\n" + "add element " + element + " timeout " + timeout + " }\n",
               error);
}

}  // namespace NORVI
