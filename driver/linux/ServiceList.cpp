#include "driver/linux/ServiceList.h"

#include <algorithm>

namespace NORVI {

namespace {

std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

void SortUnique(std::vector<uint16_t>& ports) {
    std::sort(ports.begin(), ports.end());
    ports.erase(std::unique(ports.begin(), ports.end()), ports.end());
}

}  // namespace

bool CServiceList::Parse(const std::string& text, std::string& error) {
    std::vector<uint16_t> tcp;
    std::vector<uint16_t> udp;
    if (!Trimmed(text).empty()) {
        size_t position = 0;
        while (position <= text.size()) {
            size_t end = text.find(',', position);
            if (end == std::string::npos) {
                end = text.size();
            }
            const std::string item = Trimmed(text.substr(position, end - position));
            const size_t colon = item.find(':');
            const std::string protocol = item.substr(0, colon);
            const std::string port = colon == std::string::npos ? "" : item.substr(colon + 1);
            unsigned long value = 0;
            bool digits = !port.empty() && port.size() <= 5;
            for (char c : port) {
                digits = digits && c >= '0' && c <= '9';
                value = value * 10 + static_cast<unsigned long>(c - '0');
            }
            if ((protocol != "tcp" && protocol != "udp") || !digits || value == 0 ||
                value > 65535) {
                error =
                    "bad service \"" + item.substr(0, 32) + "\" (want tcp:<port> or udp:<port>)";
                return false;
            }
            (protocol == "tcp" ? tcp : udp).push_back(static_cast<uint16_t>(value));
            position = end + 1;
        }
    }
    SortUnique(tcp);
    SortUnique(udp);
    m_Tcp.swap(tcp);
    m_Udp.swap(udp);
    return true;
}

bool CServiceList::AllowsTcp(uint16_t port) const {
    return std::binary_search(m_Tcp.begin(), m_Tcp.end(), port);
}

bool CServiceList::AllowsUdp(uint16_t port) const {
    return std::binary_search(m_Udp.begin(), m_Udp.end(), port);
}

}  // namespace NORVI
