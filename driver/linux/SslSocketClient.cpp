#include "driver/linux/SslSocketClient.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "driver/linux/SslSocketProtocol.h"

namespace NORVI {

namespace {

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string SystemText(int code) {
    char buffer[128];
    return strerror_r(code, buffer, sizeof buffer);
}

}  // namespace

CSslSocketClient::~CSslSocketClient() {
    if (m_Fd >= 0) {
        close(m_Fd);
    }
}

bool CSslSocketClient::Connect(const std::string& path, std::string& error) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "SSL socket path is empty or too long";
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (m_Fd >= 0) {
        close(m_Fd);
    }
    m_Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_Fd < 0 ||
        connect(m_Fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        error = "SSL socket " + path + ": " + SystemText(errno);
        return false;
    }
    return true;
}

bool CSslSocketClient::Submit(const void* header, const void* data, uint32_t dataLen,
                              std::string& error) {
    if (m_Fd < 0 || header == nullptr || (data == nullptr && dataLen != 0) ||
        dataLen > kSslDataMax) {
        error =
            m_Fd < 0 ? "not connected" : "an SSL request needs a header and at most 65456 bytes";
        return false;
    }
    uint8_t prefix[kSslFramePrefix];
    PutFrameLength(prefix, static_cast<uint32_t>(kSslHeaderSize + dataLen));
    iovec parts[3] = {{prefix, sizeof prefix},
                      {const_cast<void*>(header), kSslHeaderSize},
                      {const_cast<void*>(data), dataLen}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    size_t left = sizeof prefix + kSslHeaderSize + dataLen;
    while (left > 0) {
        const ssize_t sent = sendmsg(m_Fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            error = "SSL socket: " + SystemText(sent < 0 ? errno : EPIPE);
            return false;
        }
        left -= static_cast<size_t>(sent);
        size_t done = static_cast<size_t>(sent);
        while (message.msg_iovlen > 0 && done >= message.msg_iov[0].iov_len) {
            done -= message.msg_iov[0].iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov[0].iov_base = static_cast<uint8_t*>(message.msg_iov[0].iov_base) + done;
            message.msg_iov[0].iov_len -= done;
        }
    }
    return true;
}

CSslSocketClient::ReceiveResult CSslSocketClient::ReadExactly(uint8_t* target, size_t length,
                                                              int64_t deadline,
                                                              std::string& error) {
    size_t got = 0;
    while (got < length) {
        pollfd wait = {m_Fd, POLLIN, 0};
        const int64_t left = deadline - NowMs();
        const int ready = poll(&wait, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready == 0) {
            return ReceiveResult::Timeout;
        }
        const ssize_t count = ready < 0 ? -1 : recv(m_Fd, target + got, length - got, 0);
        if (count == 0) {
            return ReceiveResult::Closed;
        }
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            error = "SSL socket: " + SystemText(errno);
            return errno == ECONNRESET ? ReceiveResult::Closed : ReceiveResult::Error;
        }
        got += static_cast<size_t>(count);
    }
    return ReceiveResult::Response;
}

CSslSocketClient::ReceiveResult CSslSocketClient::Receive(std::vector<uint8_t>& response,
                                                          int timeoutMs, std::string& error) {
    if (m_Fd < 0) {
        error = "not connected";
        return ReceiveResult::Error;
    }
    const int64_t deadline = NowMs() + (timeoutMs > 0 ? timeoutMs : 0);
    uint8_t prefix[kSslFramePrefix];
    ReceiveResult result = ReadExactly(prefix, sizeof prefix, deadline, error);
    if (result != ReceiveResult::Response) {
        return result;
    }
    const uint32_t length = FrameLength(prefix);
    if (length < kSslResponseMin || length > kSslResponseMax) {
        error = "SSL socket: a response of " + std::to_string(length) + " bytes";
        return ReceiveResult::Error;
    }
    response.resize(length);
    // The rest of a frame that began follows at once; a stall is no timeout.
    result = ReadExactly(response.data(), length, NowMs() + 5000, error);
    return result == ReceiveResult::Timeout ? ReceiveResult::Error : result;
}

}  // namespace NORVI
