#include "driver/linux/SslSocketServer.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace NORVI {

namespace {

constexpr size_t kMaxClients = 64;
constexpr size_t kQueueMax = 4096;
constexpr size_t kRoutesMax = 16384;
constexpr auto kRouteLifetime = std::chrono::seconds(60);
constexpr size_t kReadChunk = 65536;

std::string SystemText(int code) {
    char buffer[128];
    return strerror_r(code, buffer, sizeof buffer);
}

void Signal(int fd) {
    const uint64_t one = 1;
    if (write(fd, &one, sizeof one) < 0) {
        return;  // an eventfd that can't take more is readable already
    }
}

void Drain(int fd) {
    uint64_t count;
    if (read(fd, &count, sizeof count) < 0) {
        return;  // nothing to drain
    }
}

bool FillAddress(const std::string& path, sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "SSL socket path is empty or longer than " +
                std::to_string(sizeof address.sun_path - 1) + " bytes";
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

// One connected client. m_Fd is closed when the last holder lets go, so that
// a response being sent never writes to a descriptor that was reused.
struct CSslSocketServer::Client {
    explicit Client(int fd) : m_Fd(fd) {}
    ~Client() { close(m_Fd); }
    const int m_Fd;
    CSslFrameReader m_Frames;  // server thread
    std::mutex m_SendLock;
    bool m_Open = true;  // m_SendLock
};

std::unique_ptr<CSslSocketServer> CSslSocketServer::Listen(const std::string& path,
                                                           std::string& error) {
    sockaddr_un address;
    if (!FillAddress(path, address, error)) {
        return nullptr;
    }
    std::unique_ptr<CSslSocketServer> server(new CSslSocketServer);
    server->m_Path = path;
    server->m_StopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    server->m_QueueFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    server->m_ListenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server->m_StopFd < 0 || server->m_QueueFd < 0 || server->m_ListenFd < 0) {
        error = "SSL socket: " + SystemText(errno);
        return nullptr;
    }
    // A socket file that nobody answers on is left from an earlier run.
    struct stat status;
    if (lstat(path.c_str(), &status) == 0) {
        const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool live =
            S_ISSOCK(status.st_mode) && probe >= 0 &&
            connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        if (probe >= 0) {
            close(probe);
        }
        if (live || !S_ISSOCK(status.st_mode)) {
            error = "SSL socket " + path + ": " +
                    (live ? "another server listens there" : "a file that is no socket is there");
            return nullptr;
        }
        unlink(path.c_str());
    }
    if (bind(server->m_ListenFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
        chmod(path.c_str(), 0660) < 0 || listen(server->m_ListenFd, 64) < 0) {
        error = "SSL socket " + path + ": " + SystemText(errno);
        return nullptr;
    }
    server->m_Thread = std::thread(&CSslSocketServer::Run, server.get());
    return server;
}

CSslSocketServer::~CSslSocketServer() {
    Stop();
    for (int fd : {m_StopFd, m_QueueFd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void CSslSocketServer::Stop() {
    if (m_Thread.joinable()) {
        Signal(m_StopFd);
        m_Thread.join();
    }
    if (m_ListenFd >= 0) {
        close(m_ListenFd);
        m_ListenFd = -1;
        unlink(m_Path.c_str());
    }
}

void CSslSocketServer::Run() {
    std::vector<pollfd> waits;
    for (;;) {
        waits.assign({{m_StopFd, POLLIN, 0}, {m_ListenFd, POLLIN, 0}});
        for (const auto& client : m_Clients) {
            waits.push_back({client->m_Fd, POLLIN, 0});
        }
        if (poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (waits[0].revents != 0) {
            break;
        }
        for (size_t index = m_Clients.size(); index-- > 0;) {
            if (waits[index + 2].revents != 0 && !ReadFrom(*m_Clients[index], m_Clients[index])) {
                const std::shared_ptr<Client> gone = m_Clients[index];
                m_Clients.erase(m_Clients.begin() + static_cast<long>(index));
                {
                    const std::lock_guard<std::mutex> guard(gone->m_SendLock);
                    gone->m_Open = false;
                }
                const std::lock_guard<std::mutex> guard(m_Lock);
                for (auto route = m_Routes.begin(); route != m_Routes.end();) {
                    route = route->second.m_Client == gone ? m_Routes.erase(route) : ++route;
                }
            }
        }
        if (waits[1].revents != 0) {
            Accept();
        }
    }
    // Waiters in Take see the stop through m_StopFd, which stays readable.
    m_Clients.clear();
}

void CSslSocketServer::Accept() {
    const int fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;  // the client gave up already
    }
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (m_Clients.size() >= kMaxClients) {
        close(fd);
        ++m_Counters.m_Dropped;
        m_LastError = "SSL socket: a client over the limit of " + std::to_string(kMaxClients) +
                      " was turned away";
        return;
    }
    // A client that reads nothing must not hold the service up for long.
    const timeval sendTimeout = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    m_Clients.push_back(std::make_shared<Client>(fd));
    ++m_Counters.m_Clients;
}

bool CSslSocketServer::ReadFrom(Client& client, const std::shared_ptr<Client>& shared) {
    uint8_t chunk[kReadChunk];
    const ssize_t got = recv(client.m_Fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    if (got <= 0) {
        if (client.m_Frames.Pending() != 0) {
            Drop("SSL socket: a client hung up in the middle of a request (" +
                 std::to_string(client.m_Frames.Pending()) + " bytes of it came)");
        }
        return false;
    }
    std::string error;
    if (!client.m_Frames.Feed(
            chunk, static_cast<size_t>(got),
            [this, &shared](const uint8_t* frame, size_t length) { Submit(shared, frame, length); },
            error)) {
        Drop(error);
        return false;
    }
    return true;
}

void CSslSocketServer::Submit(const std::shared_ptr<Client>& client, const uint8_t* frame,
                              size_t length) {
    Pending pending;
    memcpy(pending.m_Header.data(), frame, kSslHeaderSize);
    {
        const std::lock_guard<std::mutex> guard(m_Lock);
        if (m_Routes.size() >= kRoutesMax) {
            // Routes of requests that the service never answered.
            const auto now = std::chrono::steady_clock::now();
            for (auto route = m_Routes.begin(); route != m_Routes.end();) {
                route =
                    now - route->second.m_Since > kRouteLifetime ? m_Routes.erase(route) : ++route;
            }
        }
        if (m_Queue.size() < kQueueMax && m_Routes.size() < kRoutesMax) {
            const uint64_t token = m_NextToken++;
            Route& route = m_Routes[token];
            route.m_Client = client;
            route.m_Since = std::chrono::steady_clock::now();
            memcpy(route.m_Context.data(), frame + kSslContextOffset, kSslContextSize);
            memset(pending.m_Header.data() + kSslContextOffset, 0, kSslContextSize);
            memcpy(pending.m_Header.data() + kSslContextOffset, &token, sizeof token);
            pending.m_Data.assign(frame + kSslHeaderSize, frame + length);
            m_Queue.push_back(std::move(pending));
            ++m_Counters.m_Requests;
            if (m_Queue.size() == 1) {
                Signal(m_QueueFd);
            }
            return;
        }
        ++m_Counters.m_Refused;
    }
    uint8_t failure[kSslResponseMin] = {};
    memcpy(failure + kSslContextOffset, frame + kSslContextOffset, kSslContextSize);
    Send(*client, failure, sizeof failure);
}

void CSslSocketServer::Drop(const std::string& reason) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    ++m_Counters.m_Dropped;
    m_LastError = reason;
}

int CSslSocketServer::Send(Client& client, const uint8_t* message, size_t length) {
    const std::lock_guard<std::mutex> guard(client.m_SendLock);
    if (!client.m_Open) {
        return EPIPE;
    }
    uint8_t prefix[kSslFramePrefix];
    PutFrameLength(prefix, static_cast<uint32_t>(length));
    iovec parts[2] = {{prefix, sizeof prefix}, {const_cast<uint8_t*>(message), length}};
    size_t left = sizeof prefix + length;
    msghdr header = {};
    header.msg_iov = parts;
    header.msg_iovlen = 2;
    while (left > 0) {
        const ssize_t sent = sendmsg(client.m_Fd, &header, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            // Gone or not reading: the connection ends, the server thread
            // sees the hang-up and forgets the client.
            const int code = sent < 0 ? errno : EPIPE;
            client.m_Open = false;
            shutdown(client.m_Fd, SHUT_RDWR);
            return code;
        }
        left -= static_cast<size_t>(sent);
        size_t done = static_cast<size_t>(sent);
        while (header.msg_iovlen > 0 && done >= header.msg_iov[0].iov_len) {
            done -= header.msg_iov[0].iov_len;
            ++header.msg_iov;
            --header.msg_iovlen;
        }
        if (header.msg_iovlen > 0) {
            header.msg_iov[0].iov_base = static_cast<uint8_t*>(header.msg_iov[0].iov_base) + done;
            header.msg_iov[0].iov_len -= done;
        }
    }
    return 0;
}

CSslSocketServer::TakeResult CSslSocketServer::Take(uint8_t* header, std::vector<uint8_t>& data,
                                                    int wakeFd) {
    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(m_Lock);
            if (!m_Queue.empty()) {
                memcpy(header, m_Queue.front().m_Header.data(), kSslHeaderSize);
                data = std::move(m_Queue.front().m_Data);
                m_Queue.pop_front();
                if (m_Queue.empty()) {
                    Drain(m_QueueFd);
                }
                return TakeResult::Request;
            }
        }
        pollfd waits[3] = {{m_StopFd, POLLIN, 0}, {m_QueueFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (poll(waits, wakeFd >= 0 ? 3 : 2, -1) < 0 && errno != EINTR) {
            return TakeResult::Stopped;
        }
        if (waits[0].revents != 0) {
            return TakeResult::Stopped;
        }
        if (wakeFd >= 0 && waits[2].revents != 0) {
            return TakeResult::Woken;
        }
    }
}

int CSslSocketServer::Respond(const void* response, size_t size, std::string& error) {
    if (response == nullptr || size < kSslResponseMin || size > kSslResponseMax) {
        error = "an SSL response must have 72 to " + std::to_string(kSslResponseMax) + " bytes";
        return EINVAL;
    }
    std::vector<uint8_t> message(static_cast<const uint8_t*>(response),
                                 static_cast<const uint8_t*>(response) + size);
    uint32_t secretLength;
    memcpy(&secretLength, message.data(), sizeof secretLength);
    if (secretLength > size - kSslResponseMin) {
        error = "an SSL response announces " + std::to_string(secretLength) +
                " secret bytes and carries fewer";
        return EINVAL;
    }
    uint64_t token;
    memcpy(&token, message.data() + kSslContextOffset, sizeof token);
    std::shared_ptr<Client> client;
    {
        const std::lock_guard<std::mutex> guard(m_Lock);
        auto route = m_Routes.find(token);
        if (route == m_Routes.end()) {
            // Its client has gone (or the request was never ours to route).
            ++m_Counters.m_Orphaned;
            return 0;
        }
        client = std::move(route->second.m_Client);
        memcpy(message.data() + kSslContextOffset, route->second.m_Context.data(), kSslContextSize);
        m_Routes.erase(route);
    }
    const bool delivered = Send(*client, message.data(), message.size()) == 0;
    const std::lock_guard<std::mutex> guard(m_Lock);
    ++(delivered ? m_Counters.m_Answered : m_Counters.m_Orphaned);
    return 0;
}

CSslSocketServer::Counters CSslSocketServer::GetCounters() const {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_Counters;
}

std::string CSslSocketServer::LastError() const {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_LastError;
}

}  // namespace NORVI
