#include "driver/linux/NflogSource.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/libnetfilter_log.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include "driver/linux/ServiceList.h"
#include "host/NorviRecord.h"

namespace NORVI {

namespace {

constexpr int kDefaultReceiveBuffer = 8 << 20;
constexpr uint32_t kQueueThreshold = 256;
constexpr uint32_t kFlushTimeoutHundredths = 1;  // 10 ms
constexpr uint32_t kKernelBatchBytes = 65536;
constexpr size_t kReadBuffer = 256 << 10;
constexpr int64_t kMacLifetimeMs = 10000;

std::string SystemText(int code) {
    char buffer[128];
    return strerror_r(code, buffer, sizeof buffer);
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

CNflogSource::CNflogSource()
    : m_Parser([this](uint32_t index, uint8_t* mac) { return LookupMac(index, mac); },
               Record::kTrailingDataMax),
      m_Buffer(kReadBuffer) {}

CNflogSource::~CNflogSource() {
    if (m_Ruleset != nullptr) {
        std::string ignored;
        m_Ruleset->Remove(ignored);
    }
    if (m_Socket != nullptr) {
        mnl_socket_close(m_Socket);
    }
    if (m_IoctlFd >= 0) {
        close(m_IoctlFd);
    }
}

std::unique_ptr<CNflogSource> CNflogSource::Open(const SourceOptions& options, std::string& error) {
    if (options.m_NflogGroup < 0 || options.m_NflogGroup > 0xffff) {
        error = "NFLOG group " + std::to_string(options.m_NflogGroup) + " is not in 0 to 65535";
        return nullptr;
    }
    CServiceList services;
    if (options.m_InstallRuleset && !services.Parse(options.m_Services, error)) {
        return nullptr;
    }
    std::unique_ptr<CNflogSource> source(new CNflogSource);
    source->m_IoctlFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (!source->Bind(options.m_NflogGroup, options.m_ReceiveBufferBytes, error)) {
        return nullptr;
    }
    if (options.m_InstallRuleset) {
        auto ruleset = std::make_unique<CNftRuleset>();
        if (ruleset->Install(options.m_NflogGroup, services.TcpPorts(), services.UdpPorts(),
                             error) != 0) {
            error = "the ruleset could not be installed: " + error;
            return nullptr;
        }
        source->m_Ruleset = std::move(ruleset);
    }
    return source;
}

bool CNflogSource::Bind(int group, int receiveBufferBytes, std::string& error) {
    m_Socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC);
    if (m_Socket == nullptr || mnl_socket_bind(m_Socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        error = "netfilter netlink socket: " + SystemText(errno);
        return false;
    }
    const int fd = mnl_socket_get_fd(m_Socket);
    const int size = receiveBufferBytes > 0 ? receiveBufferBytes : kDefaultReceiveBuffer;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0 &&
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) < 0) {
        error = "receive buffer: " + SystemText(errno);
        return false;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMP, &on, sizeof on) < 0) {
        error = "SO_TIMESTAMP: " + SystemText(errno);
        return false;
    }

    char request[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* const message =
        nflog_nlmsg_put_header(request, NFULNL_MSG_CONFIG, AF_UNSPEC, static_cast<uint16_t>(group));
    message->nlmsg_flags |= NLM_F_ACK;
    message->nlmsg_seq = static_cast<uint32_t>(time(nullptr));
    nflog_attr_put_cfg_cmd(message, NFULNL_CFG_CMD_BIND);
    nflog_attr_put_cfg_mode(message, NFULNL_COPY_PACKET, 0xffff);
    mnl_attr_put_u32(message, NFULA_CFG_QTHRESH, htonl(kQueueThreshold));
    mnl_attr_put_u32(message, NFULA_CFG_TIMEOUT, htonl(kFlushTimeoutHundredths));
    mnl_attr_put_u32(message, NFULA_CFG_NLBUFSIZ, htonl(kKernelBatchBytes));
    mnl_attr_put_u16(message, NFULA_CFG_FLAGS, htons(NFULNL_CFG_F_SEQ));
    if (mnl_socket_sendto(m_Socket, message, message->nlmsg_len) < 0) {
        error = "NFLOG configuration: " + SystemText(errno);
        return false;
    }
    // The answer; packets of the new binding may come ahead of it.
    const auto deadline = NowMs() + 2000;
    for (;;) {
        pollfd wait = {fd, POLLIN, 0};
        const int64_t left = deadline - NowMs();
        if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) {
            error = "NFLOG configuration: no answer from the kernel";
            return false;
        }
        const ssize_t length = recv(fd, m_Buffer.data(), m_Buffer.size(), 0);
        if (length < 0) {
            if (errno == EINTR || errno == ENOBUFS) {
                continue;
            }
            error = "NFLOG configuration: " + SystemText(errno);
            return false;
        }
        timeval now;
        gettimeofday(&now, nullptr);
        m_Parser.Feed(m_Buffer.data(), static_cast<size_t>(length), now, m_Pending);
        int remaining = static_cast<int>(length);
        for (const nlmsghdr* answer = reinterpret_cast<const nlmsghdr*>(m_Buffer.data());
             mnl_nlmsg_ok(answer, remaining); answer = mnl_nlmsg_next(answer, &remaining)) {
            if (answer->nlmsg_type != NLMSG_ERROR || answer->nlmsg_seq != message->nlmsg_seq ||
                mnl_nlmsg_get_payload_len(answer) < sizeof(nlmsgerr)) {
                continue;
            }
            const int code = -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(answer))->error;
            if (code == 0) {
                return true;
            }
            error = "NFLOG group " + std::to_string(group) + ": " + SystemText(code) +
                    (code == EBUSY   ? " (another listener has the group in this namespace)"
                     : code == EPERM ? " (CAP_NET_ADMIN is needed)"
                                     : "");
            return false;
        }
    }
}

CRecordSource::ReadResult CNflogSource::Next(SourceRecord& out, int timeoutMs) {
    const int64_t deadline = NowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    while (m_Pending.empty()) {
        pollfd wait = {mnl_socket_get_fd(m_Socket), POLLIN, 0};
        const int64_t left = deadline - NowMs();
        const int ready = poll(&wait, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno != EINTR) {
            m_LastError = "poll: " + SystemText(errno);
            return ReadResult::Error;
        }
        if (ready > 0 && !Receive()) {
            return ReadResult::Error;
        }
        if (ready == 0 && m_Pending.empty()) {
            return ReadResult::Timeout;
        }
    }
    out = std::move(m_Pending.front());
    m_Pending.pop_front();
    return ReadResult::Record;
}

bool CNflogSource::Receive() {
    iovec vector = {m_Buffer.data(), m_Buffer.size()};
    msghdr header = {};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    const ssize_t length = recvmsg(mnl_socket_get_fd(m_Socket), &header, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0) {
        if (errno == ENOBUFS) {
            ++m_Lost;  // the kernel threw messages away; the sequence numbers say how many
            return true;
        }
        if (errno == EAGAIN || errno == EINTR) {
            return true;
        }
        m_LastError = "NFLOG socket: " + SystemText(errno);
        return false;
    }
    if (static_cast<size_t>(length) > m_Buffer.size()) {
        m_Parser.CountDropped("NFLOG batch of " + std::to_string(length) +
                              " bytes is larger than the read buffer");
        return true;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    m_Parser.Feed(m_Buffer.data(), static_cast<size_t>(length), now, m_Pending);
    return true;
}

SourceCounters CNflogSource::Counters() const {
    SourceCounters counters = m_Parser.Counters();
    counters.m_Lost = m_Lost;
    return counters;
}

uint32_t CNflogSource::LookupMac(uint32_t interfaceIndex, uint8_t* mac) {
    const int64_t now = NowMs();
    auto found = m_Macs.find(interfaceIndex);
    if (found == m_Macs.end() || now - found->second.m_LookedUpMs > kMacLifetimeMs) {
        MacEntry entry = {{}, 0, now};
        ifreq request = {};
        request.ifr_ifindex = static_cast<int>(interfaceIndex);
        if (m_IoctlFd >= 0 && ioctl(m_IoctlFd, SIOCGIFNAME, &request) == 0 &&
            ioctl(m_IoctlFd, SIOCGIFHWADDR, &request) == 0) {
            memcpy(entry.m_Mac, request.ifr_hwaddr.sa_data, 6);
            entry.m_Length = 6;
        }
        found = m_Macs.insert_or_assign(interfaceIndex, entry).first;
    }
    memcpy(mac, found->second.m_Mac, sizeof found->second.m_Mac);
    return found->second.m_Length;
}

std::unique_ptr<CRecordSource> CreateNflogSource(const SourceOptions& options, std::string& error) {
    return CNflogSource::Open(options, error);
}

}  // namespace NORVI
