// The driver-interface library in its in-process form: it stands where the
// kernel driver's channel would be, so that the program's block requests and
// SSL service can run and be watched on any machine. The norvi_* functions
// behave as the program expects of the driver; the norvi_test_* controls play
// the driver's own side.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "driver/standin/NorviControl.h"

namespace {

// Text of a system error number, safe on any thread.
std::string SystemText(int code) {
    char buffer[128];
    return strerror_r(code, buffer, sizeof buffer);
}

// Copies text into a caller's buffer of size bytes (size > 0), cut short when
// needed and always terminated.
void CopyText(const std::string& text, char* buffer, size_t size) {
    const size_t length = text.size() < size - 1 ? text.size() : size - 1;
    memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

// Signals an eventfd. The counter can't overflow in any real use, and a
// failed write would only mean that it is readable already.
void SignalFd(int fd) {
    const uint64_t one = 1;
    if (write(fd, &one, sizeof one) < 0) {
        return;
    }
}

// Whether poll saw the descriptor readable, hung up or invalid: each ends a
// wait on it.
bool Woken(const pollfd& entry) {
    return (entry.revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

const uint8_t kEmptyData[1] = {0};

}  // namespace

// One open handle. m_CloseFd is fixed from open to destruction; the other
// members are guarded by CNorviDriver::m_Lock. The object lives as long as the
// driver's table or a call in progress holds it, so a handle closed while a
// thread waits on it is never freed under that thread.
struct norvi_handle {
    norvi_handle() = default;
    norvi_handle(const norvi_handle&) = delete;
    norvi_handle& operator=(const norvi_handle&) = delete;
    ~norvi_handle() {
        if (m_EventFd >= 0) {
            close(m_EventFd);
        }
        if (m_CloseFd >= 0) {
            close(m_CloseFd);
        }
    }

    int m_CloseFd = -1;           // eventfd, signalled when the handle is closed
    bool m_Open = true;           // m_Lock: false once closed
    int m_EventFd = -1;           // m_Lock: own duplicate of the registered event, or -1
    int m_Waiters = 0;            // m_Lock: calls of get_ssl_request waiting on the handle
    std::string m_LastError;      // m_Lock
    std::vector<uint8_t> m_Data;  // m_Lock: data block of the request handed out last
};

namespace {

// The driver's side of every handle: the table of open handles, the queue of
// SSL requests, and what the program sent. One per process, never destroyed,
// so that a thread still in a call at exit finds it intact. All state is
// guarded by m_Lock; m_RequestFd is fixed after construction and is readable
// exactly while m_SslRequests is not empty.
class CNorviDriver {
public:
    static CNorviDriver& Instance() {
        static CNorviDriver* const driver = new CNorviDriver;
        return *driver;
    }

    norvi_handle_t Open() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        if (m_RequestFd < 0) {
            m_LastError = "norvi_open: the request channel could not be made";
            return nullptr;
        }
        auto handle = std::make_shared<norvi_handle>();
        handle->m_CloseFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (handle->m_CloseFd < 0) {
            m_LastError = "norvi_open: eventfd: " + SystemText(errno);
            return nullptr;
        }
        m_Handles.emplace(handle.get(), handle);
        return handle.get();
    }

    void Close(norvi_handle_t handle) {
        std::shared_ptr<norvi_handle> closing;
        const std::lock_guard<std::mutex> guard(m_Lock);
        auto found = m_Handles.find(handle);
        if (found == m_Handles.end()) {
            m_LastError =
                handle == nullptr ? "norvi_close: null handle" : "norvi_close: not an open handle";
            return;
        }
        closing = std::move(found->second);
        m_Handles.erase(found);
        closing->m_Open = false;
        SignalFd(closing->m_CloseFd);
    }

    int GetError(norvi_handle_t handle, char* buffer, size_t size) {
        if (buffer == nullptr || size == 0) {
            return EINVAL;
        }
        const std::lock_guard<std::mutex> guard(m_Lock);
        if (handle == nullptr) {
            CopyText(m_LastError, buffer, size);
            return 0;
        }
        auto found = m_Handles.find(handle);
        if (found == m_Handles.end()) {
            CopyText("not an open norvi handle", buffer, size);
            return EBADF;
        }
        CopyText(found->second->m_LastError, buffer, size);
        return 0;
    }

    int RegisterEvent(norvi_handle_t handle, int kind, int event) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        const std::shared_ptr<norvi_handle> open = Find(handle, "norvi_register_event");
        if (open == nullptr) {
            return handle == nullptr ? EINVAL : EBADF;
        }
        if (kind != 1) {
            open->m_LastError = "norvi_register_event: unknown event kind " + std::to_string(kind);
            return EINVAL;
        }
        if (open->m_Waiters > 0) {
            open->m_LastError = "norvi_register_event: the handle is waiting for a request";
            return EBUSY;
        }
        const int copy = fcntl(event, F_DUPFD_CLOEXEC, 0);
        if (copy < 0) {
            const int code = errno;
            open->m_LastError = "norvi_register_event: " + SystemText(code);
            return code;
        }
        if (open->m_EventFd >= 0) {
            close(open->m_EventFd);
        }
        open->m_EventFd = copy;
        return 0;
    }

    int GetSslRequest(norvi_handle_t handle, void* header, const void** data, uint32_t* dataLen) {
        std::shared_ptr<norvi_handle> held;
        {
            const std::lock_guard<std::mutex> guard(m_Lock);
            held = Find(handle, "norvi_get_ssl_request");
            if (held == nullptr) {
                return handle == nullptr ? EINVAL : EBADF;
            }
            if (header == nullptr || data == nullptr || dataLen == nullptr) {
                held->m_LastError = "norvi_get_ssl_request: null argument";
                return EINVAL;
            }
        }
        for (;;) {
            pollfd waits[3] = {};
            {
                const std::lock_guard<std::mutex> guard(m_Lock);
                if (!held->m_Open) {
                    return EBADF;
                }
                if (!m_SslRequests.empty()) {
                    HandOut(*held, header, data, dataLen);
                    return 0;
                }
                if (held->m_EventFd < 0) {
                    held->m_LastError =
                        "norvi_get_ssl_request: no request queued and no event registered";
                    return EAGAIN;
                }
                waits[0] = {m_RequestFd, POLLIN, 0};
                waits[1] = {held->m_CloseFd, POLLIN, 0};
                waits[2] = {held->m_EventFd, POLLIN, 0};
                ++held->m_Waiters;
            }
            const int ready = poll(waits, 3, -1);
            const int pollError = errno;
            const std::lock_guard<std::mutex> guard(m_Lock);
            --held->m_Waiters;
            if (ready < 0 && pollError != EINTR) {
                held->m_LastError = "norvi_get_ssl_request: poll: " + SystemText(pollError);
                return pollError;
            }
            if (Woken(waits[1])) {
                held->m_LastError = "norvi_get_ssl_request: the handle was closed";
                return EBADF;
            }
            if (Woken(waits[2])) {
                held->m_LastError = "norvi_get_ssl_request: woken by the registered event";
                return ECANCELED;
            }
        }
    }

    int SslResponse(norvi_handle_t handle, const void* response, size_t size) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        const std::shared_ptr<norvi_handle> open = Find(handle, "norvi_ssl_response");
        if (open == nullptr) {
            return handle == nullptr ? EINVAL : EBADF;
        }
        if (response == nullptr && size != 0) {
            open->m_LastError = "norvi_ssl_response: null response";
            return EINVAL;
        }
        const uint8_t* const bytes = static_cast<const uint8_t*>(response);
        m_SslResponses.push_back({handle, std::vector<uint8_t>(bytes, bytes + size)});
        if (m_SslResponseResult != 0) {
            open->m_LastError =
                "norvi_ssl_response: refused by the driver: " + SystemText(m_SslResponseResult);
        }
        return m_SslResponseResult;
    }

    int AddBlacklist(norvi_handle_t handle, const void* request) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        const std::shared_ptr<norvi_handle> open = Find(handle, "norvi_add_blacklist");
        if (open == nullptr) {
            return handle == nullptr ? EINVAL : EBADF;
        }
        if (request == nullptr) {
            open->m_LastError = "norvi_add_blacklist: null request";
            return EINVAL;
        }
        std::array<uint8_t, NORVI_BLACKLIST_REQUEST_SIZE> copy;
        memcpy(copy.data(), request, copy.size());
        m_BlacklistRequests.push_back(copy);
        if (m_BlacklistResult != 0) {
            open->m_LastError =
                "norvi_add_blacklist: refused by the driver: " + SystemText(m_BlacklistResult);
        }
        return m_BlacklistResult;
    }

    size_t TakeBlacklistRequests(void* buffer, size_t maxRequests) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        size_t taken = 0;
        uint8_t* target = static_cast<uint8_t*>(buffer);
        while (buffer != nullptr && taken < maxRequests && !m_BlacklistRequests.empty()) {
            memcpy(target, m_BlacklistRequests.front().data(), NORVI_BLACKLIST_REQUEST_SIZE);
            target += NORVI_BLACKLIST_REQUEST_SIZE;
            m_BlacklistRequests.pop_front();
            ++taken;
        }
        return taken;
    }

    void SetBlacklistResult(int code) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_BlacklistResult = code;
    }

    int SubmitSslRequest(const void* header, const void* data, uint32_t dataLen) {
        if (header == nullptr || (data == nullptr && dataLen != 0) ||
            dataLen > NORVI_SSL_DATA_MAX) {
            return EINVAL;
        }
        SslRequest request;
        memcpy(request.m_Header.data(), header, NORVI_SSL_HEADER_SIZE);
        const uint8_t* const bytes = static_cast<const uint8_t*>(data);
        request.m_Data.assign(bytes, bytes + dataLen);
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_SslRequests.push_back(std::move(request));
        if (m_SslRequests.size() == 1) {
            SignalFd(m_RequestFd);
        }
        return 0;
    }

    long TakeSslResponse(void* buffer, size_t capacity, norvi_handle_t* sender) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        if (m_SslResponses.empty()) {
            return -1;
        }
        const SslResponseRecord& oldest = m_SslResponses.front();
        const size_t size = oldest.m_Bytes.size();
        if (size <= capacity) {
            if (size != 0) {
                memcpy(buffer, oldest.m_Bytes.data(), size);
            }
            if (sender != nullptr) {
                *sender = oldest.m_Sender;
            }
            m_SslResponses.pop_front();
        }
        return static_cast<long>(size);
    }

    void SetSslResponseResult(int code) {
        const std::lock_guard<std::mutex> guard(m_Lock);
        m_SslResponseResult = code;
    }

    size_t OpenHandles() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        return m_Handles.size();
    }

    void Reset() {
        const std::lock_guard<std::mutex> guard(m_Lock);
        if (!m_SslRequests.empty()) {
            DrainRequestFd();
        }
        m_SslRequests.clear();
        m_SslResponses.clear();
        m_BlacklistRequests.clear();
        m_BlacklistResult = 0;
        m_SslResponseResult = 0;
        m_LastError.clear();
    }

private:
    struct SslRequest {
        std::array<uint8_t, NORVI_SSL_HEADER_SIZE> m_Header;
        std::vector<uint8_t> m_Data;
    };
    struct SslResponseRecord {
        norvi_handle_t m_Sender;
        std::vector<uint8_t> m_Bytes;
    };

    CNorviDriver() : m_RequestFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    // The open handle, or null with the reason in the library's last error.
    // Called with m_Lock held.
    std::shared_ptr<norvi_handle> Find(norvi_handle_t handle, const char* operation) {
        auto found = m_Handles.find(handle);
        if (found != m_Handles.end()) {
            return found->second;
        }
        m_LastError =
            std::string(operation) + (handle == nullptr ? ": null handle" : ": not an open handle");
        return nullptr;
    }

    // Gives the oldest queued request to handle. Called with m_Lock held and
    // a request queued.
    void HandOut(norvi_handle& handle, void* header, const void** data, uint32_t* dataLen) {
        SslRequest& request = m_SslRequests.front();
        memcpy(header, request.m_Header.data(), NORVI_SSL_HEADER_SIZE);
        handle.m_Data = std::move(request.m_Data);
        m_SslRequests.pop_front();
        if (m_SslRequests.empty()) {
            DrainRequestFd();
        }
        *data = handle.m_Data.empty() ? kEmptyData : handle.m_Data.data();
        *dataLen = static_cast<uint32_t>(handle.m_Data.size());
    }

    // Makes m_RequestFd unreadable again. Called with m_Lock held.
    void DrainRequestFd() {
        uint64_t count;
        if (read(m_RequestFd, &count, sizeof count) < 0) {
            return;  // already drained
        }
    }

    std::mutex m_Lock;
    const int m_RequestFd;
    std::map<norvi_handle_t, std::shared_ptr<norvi_handle>> m_Handles;                  // m_Lock
    std::string m_LastError;                                                            // m_Lock
    std::deque<std::array<uint8_t, NORVI_BLACKLIST_REQUEST_SIZE>> m_BlacklistRequests;  // m_Lock
    int m_BlacklistResult = 0;                                                          // m_Lock
    std::deque<SslRequest> m_SslRequests;                                               // m_Lock
    std::deque<SslResponseRecord> m_SslResponses;                                       // m_Lock
    int m_SslResponseResult = 0;                                                        // m_Lock
};

}  // namespace

// The C entry points. Nothing may throw out of them: the only exception that
// can arise is an allocation failure, which becomes ENOMEM (null for open).
extern "C" {

norvi_handle_t norvi_open(void) {
    try {
        return CNorviDriver::Instance().Open();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void norvi_close(norvi_handle_t handle) {
    try {
        CNorviDriver::Instance().Close(handle);
    } catch (const std::bad_alloc&) {
        return;
    }
}

int norvi_get_error(norvi_handle_t handle, char* buffer, size_t size) {
    try {
        return CNorviDriver::Instance().GetError(handle, buffer, size);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int norvi_register_event(norvi_handle_t handle, int kind, int event) {
    try {
        return CNorviDriver::Instance().RegisterEvent(handle, kind, event);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int norvi_get_ssl_request(norvi_handle_t handle, void* header, const void** data,
                          uint32_t* dataLen) {
    try {
        return CNorviDriver::Instance().GetSslRequest(handle, header, data, dataLen);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int norvi_ssl_response(norvi_handle_t handle, const void* response, size_t size) {
    try {
        return CNorviDriver::Instance().SslResponse(handle, response, size);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int norvi_add_blacklist(norvi_handle_t handle, const void* request) {
    try {
        return CNorviDriver::Instance().AddBlacklist(handle, request);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

size_t norvi_test_take_blacklist_requests(void* buffer, size_t maxRequests) {
    return CNorviDriver::Instance().TakeBlacklistRequests(buffer, maxRequests);
}

void norvi_test_set_blacklist_result(int code) {
    CNorviDriver::Instance().SetBlacklistResult(code);
}

int norvi_test_submit_ssl_request(const void* header, const void* data, uint32_t dataLen) {
    try {
        return CNorviDriver::Instance().SubmitSslRequest(header, data, dataLen);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

long norvi_test_take_ssl_response(void* buffer, size_t capacity, norvi_handle_t* sender) {
    return CNorviDriver::Instance().TakeSslResponse(buffer, capacity, sender);
}

void norvi_test_set_ssl_response_result(int code) {
    CNorviDriver::Instance().SetSslResponseResult(code);
}

size_t norvi_test_open_handles(void) {
    return CNorviDriver::Instance().OpenHandles();
}

void norvi_test_reset(void) {
    CNorviDriver::Instance().Reset();
}

}  // extern "C"
