#include "driver/linux/NorviLinux.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "driver/linux/NftRuleset.h"
#include "driver/linux/SslSocketServer.h"

using NORVI::CRecordSource;
using NORVI::CSslSocketServer;

// One open handle. m_Lock guards m_LastError and m_EventFd, which
// norvi_get_error and norvi_register_event may touch from another thread;
// the rest belongs to the thread that uses the handle.
struct norvi_handle {
    ~norvi_handle() {
        if (m_EventFd >= 0) {
            close(m_EventFd);
        }
    }
    std::mutex m_Lock;
    std::string m_LastError;
    int m_EventFd = -1;
    std::unique_ptr<CRecordSource> m_Source;
    std::unique_ptr<NORVI::CNftRuleset> m_Ruleset;  // made at the first block
    std::vector<uint8_t> m_RequestData;             // the data of the request handed out last
    std::deque<std::string> m_KeyLog;               // key log lines not yet taken
};

namespace {

// The library's own state: open handles, the SSL socket, the last error of
// calls without a handle. Made once and never destroyed, so that a thread
// still in a call at exit finds it intact. Guarded by m_Lock.
struct Library {
    static Library& Instance() {
        static Library* const library = new Library;
        return *library;
    }
    std::mutex m_Lock;
    std::set<norvi_handle_t> m_Handles;
    std::shared_ptr<CSslSocketServer> m_Server;
    std::string m_LastError;
};

const uint8_t kEmptyData[1] = {0};

int LibraryError(int code, const std::string& text) {
    Library& library = Library::Instance();
    const std::lock_guard<std::mutex> guard(library.m_Lock);
    library.m_LastError = text;
    return code;
}

int HandleError(norvi_handle_t handle, int code, const std::string& text) {
    const std::lock_guard<std::mutex> guard(handle->m_Lock);
    handle->m_LastError = text;
    return code;
}

// Whether handle is open; if not, the library's error says so.
bool IsOpen(norvi_handle_t handle, const char* operation) {
    Library& library = Library::Instance();
    const std::lock_guard<std::mutex> guard(library.m_Lock);
    if (handle != nullptr && library.m_Handles.count(handle) != 0) {
        return true;
    }
    library.m_LastError =
        std::string(operation) + (handle == nullptr ? ": null handle" : ": not an open handle");
    return false;
}

std::shared_ptr<CSslSocketServer> Server() {
    Library& library = Library::Instance();
    const std::lock_guard<std::mutex> guard(library.m_Lock);
    return library.m_Server;
}

norvi_handle_t Register(std::unique_ptr<norvi_handle> handle) {
    Library& library = Library::Instance();
    const std::lock_guard<std::mutex> guard(library.m_Lock);
    library.m_Handles.insert(handle.get());
    return handle.release();
}

void CopyText(const std::string& text, char* buffer, size_t size) {
    const size_t length = text.size() < size - 1 ? text.size() : size - 1;
    memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

}  // namespace

extern "C" {

norvi_handle_t norvi_open(void) {
    try {
        return Register(std::make_unique<norvi_handle>());
    } catch (const std::bad_alloc&) {
        LibraryError(ENOMEM, "norvi_open: out of memory");
        return nullptr;
    }
}

norvi_handle_t norvi_open_source(const NORVI::SourceOptions* options) {
    try {
        if (options == nullptr) {
            LibraryError(EINVAL, "norvi_open_source: no options");
            return nullptr;
        }
        if (options->m_NflogGroup < 0 && options->m_CapturePath.empty()) {
            LibraryError(EINVAL, "norvi_open_source: neither an NFLOG group nor a capture given");
            return nullptr;
        }
        std::string error;
        auto handle = std::make_unique<norvi_handle>();
        handle->m_Source = options->m_NflogGroup >= 0 ? NORVI::CreateNflogSource(*options, error)
                                                      : NORVI::CreateCaptureSource(*options, error);
        if (handle->m_Source == nullptr) {
            LibraryError(EIO, "norvi_open_source: " + error);
            return nullptr;
        }
        return Register(std::move(handle));
    } catch (const std::bad_alloc&) {
        LibraryError(ENOMEM, "norvi_open_source: out of memory");
        return nullptr;
    }
}

void norvi_close(norvi_handle_t handle) {
    {
        Library& library = Library::Instance();
        const std::lock_guard<std::mutex> guard(library.m_Lock);
        if (library.m_Handles.erase(handle) == 0) {
            library.m_LastError = "norvi_close: not an open handle";
            return;
        }
    }
    delete handle;
}

int norvi_get_error(norvi_handle_t handle, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return EINVAL;
    }
    Library& library = Library::Instance();
    const std::lock_guard<std::mutex> guard(library.m_Lock);
    if (handle == nullptr) {
        CopyText(library.m_LastError, buffer, size);
        return 0;
    }
    if (library.m_Handles.count(handle) == 0) {
        CopyText("not an open norvi handle", buffer, size);
        return EBADF;
    }
    const std::lock_guard<std::mutex> handleGuard(handle->m_Lock);
    CopyText(handle->m_LastError, buffer, size);
    return 0;
}

int norvi_register_event(norvi_handle_t handle, int kind, int event) {
    if (!IsOpen(handle, "norvi_register_event")) {
        return handle == nullptr ? EINVAL : EBADF;
    }
    if (kind != 1) {
        return HandleError(handle, EINVAL,
                           "norvi_register_event: unknown event kind " + std::to_string(kind));
    }
    const int copy = fcntl(event, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) {
        const int code = errno;
        return HandleError(handle, code, "norvi_register_event: " + std::string(strerror(code)));
    }
    const std::lock_guard<std::mutex> guard(handle->m_Lock);
    if (handle->m_EventFd >= 0) {
        close(handle->m_EventFd);
    }
    handle->m_EventFd = copy;
    return 0;
}

int norvi_get_ssl_request(norvi_handle_t handle, void* header, const void** data,
                          uint32_t* dataLen) {
    if (!IsOpen(handle, "norvi_get_ssl_request")) {
        return handle == nullptr ? EINVAL : EBADF;
    }
    if (header == nullptr || data == nullptr || dataLen == nullptr) {
        return HandleError(handle, EINVAL, "norvi_get_ssl_request: null argument");
    }
    const std::shared_ptr<CSslSocketServer> server = Server();
    if (server == nullptr) {
        return HandleError(handle, ENOTCONN,
                           "norvi_get_ssl_request: no SSL request socket is served");
    }
    int eventFd;
    {
        const std::lock_guard<std::mutex> guard(handle->m_Lock);
        eventFd = handle->m_EventFd;
    }
    try {
        switch (server->Take(static_cast<uint8_t*>(header), handle->m_RequestData, eventFd)) {
            case CSslSocketServer::TakeResult::Request:
                *data = handle->m_RequestData.empty() ? kEmptyData : handle->m_RequestData.data();
                *dataLen = static_cast<uint32_t>(handle->m_RequestData.size());
                return 0;
            case CSslSocketServer::TakeResult::Woken:
                return HandleError(handle, ECANCELED,
                                   "norvi_get_ssl_request: woken by the registered event");
            case CSslSocketServer::TakeResult::Stopped:
                break;
        }
    } catch (const std::bad_alloc&) {
        return HandleError(handle, ENOMEM, "norvi_get_ssl_request: out of memory");
    }
    return HandleError(handle, ESHUTDOWN, "norvi_get_ssl_request: the SSL socket was stopped");
}

int norvi_ssl_response(norvi_handle_t handle, const void* response, size_t size) {
    if (!IsOpen(handle, "norvi_ssl_response")) {
        return handle == nullptr ? EINVAL : EBADF;
    }
    const std::shared_ptr<CSslSocketServer> server = Server();
    if (server == nullptr) {
        return HandleError(handle, ENOTCONN, "norvi_ssl_response: no SSL request socket is served");
    }
    try {
        std::string error;
        const int code = server->Respond(response, size, error);
        return code == 0 ? 0 : HandleError(handle, code, "norvi_ssl_response: " + error);
    } catch (const std::bad_alloc&) {
        return HandleError(handle, ENOMEM, "norvi_ssl_response: out of memory");
    }
}

int norvi_add_blacklist(norvi_handle_t handle, const void* request) {
    if (!IsOpen(handle, "norvi_add_blacklist")) {
        return handle == nullptr ? EINVAL : EBADF;
    }
    if (request == nullptr) {
        return HandleError(handle, EINVAL, "norvi_add_blacklist: null request");
    }
    // The 12-byte request: block time in ms (host order) at 4, IPv4 address
    // (network order) at 8.
    uint32_t milliseconds;
    in_addr address;
    memcpy(&milliseconds, static_cast<const uint8_t*>(request) + 4, 4);
    memcpy(&address, static_cast<const uint8_t*>(request) + 8, 4);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, text, sizeof text);
    try {
        if (handle->m_Ruleset == nullptr) {
            handle->m_Ruleset = std::make_unique<NORVI::CNftRuleset>();
        }
        std::string error;
        const int code = handle->m_Ruleset->Block(text, milliseconds, error);
        return code == 0 ? 0
                         : HandleError(handle, code,
                                       "norvi_add_blacklist " + std::string(text) + ": " + error);
    } catch (const std::bad_alloc&) {
        return HandleError(handle, ENOMEM, "norvi_add_blacklist: out of memory");
    }
}

int norvi_next_record(norvi_handle_t handle, int timeoutMs, NORVI::SourceRecord* out) {
    if (!IsOpen(handle, "norvi_next_record")) {
        return -1;
    }
    if (out == nullptr || handle->m_Source == nullptr) {
        HandleError(handle, EINVAL,
                    out == nullptr ? "norvi_next_record: no record to fill"
                                   : "norvi_next_record: the handle has no record source");
        return -1;
    }
    try {
        switch (handle->m_Source->Next(*out, timeoutMs)) {
            case CRecordSource::ReadResult::Record:
                return 0;
            case CRecordSource::ReadResult::Timeout:
                return 1;
            case CRecordSource::ReadResult::End:
                return 2;
            case CRecordSource::ReadResult::Error:
                break;
        }
        HandleError(handle, EIO, handle->m_Source->LastError());
    } catch (const std::bad_alloc&) {
        HandleError(handle, ENOMEM, "norvi_next_record: out of memory");
    }
    return -1;
}

int norvi_source_counters(norvi_handle_t handle, NORVI::SourceCounters* out) {
    if (!IsOpen(handle, "norvi_source_counters")) {
        return handle == nullptr ? EINVAL : EBADF;
    }
    if (out == nullptr || handle->m_Source == nullptr) {
        return HandleError(handle, EINVAL,
                           "norvi_source_counters: the handle has no record source");
    }
    *out = handle->m_Source->Counters();
    return 0;
}

long norvi_take_keylog(norvi_handle_t handle, char* buffer, size_t size, uint64_t* failed) {
    if (!IsOpen(handle, "norvi_take_keylog") || handle->m_Source == nullptr || buffer == nullptr ||
        failed == nullptr) {
        return -1;
    }
    try {
        for (std::string& line : handle->m_Source->TakeKeyLog(*failed)) {
            handle->m_KeyLog.push_back(std::move(line));
        }
        size_t used = 0;
        while (!handle->m_KeyLog.empty()) {
            const std::string& line = handle->m_KeyLog.front();
            if (line.size() + 1 > size) {
                handle->m_KeyLog.pop_front();  // no buffer could take it
                continue;
            }
            if (used + line.size() + 1 > size) {
                break;
            }
            memcpy(buffer + used, line.data(), line.size());
            used += line.size();
            buffer[used++] = '\n';
            handle->m_KeyLog.pop_front();
        }
        return static_cast<long>(used);
    } catch (const std::bad_alloc&) {
        HandleError(handle, ENOMEM, "norvi_take_keylog: out of memory");
        return -1;
    }
}

int norvi_listen_ssl(const char* path) {
    try {
        Library& library = Library::Instance();
        std::shared_ptr<CSslSocketServer> stopping;
        {
            const std::lock_guard<std::mutex> guard(library.m_Lock);
            if (path == nullptr || path[0] == '\0') {
                stopping = std::move(library.m_Server);
            } else if (library.m_Server != nullptr) {
                if (library.m_Server->Path() == path) {
                    return 0;
                }
                library.m_LastError = "norvi_listen_ssl: the SSL socket is served at " +
                                      library.m_Server->Path() + " already";
                return EBUSY;
            }
        }
        if (path == nullptr || path[0] == '\0') {
            if (stopping != nullptr) {
                stopping->Stop();
            }
            return 0;
        }
        std::string error;
        std::shared_ptr<CSslSocketServer> server = CSslSocketServer::Listen(path, error);
        if (server == nullptr) {
            return LibraryError(EADDRNOTAVAIL, "norvi_listen_ssl: " + error);
        }
        const std::lock_guard<std::mutex> guard(library.m_Lock);
        if (library.m_Server != nullptr) {
            library.m_LastError = "norvi_listen_ssl: another thread started the SSL socket";
            return EBUSY;
        }
        library.m_Server = std::move(server);
        return 0;
    } catch (const std::exception& failure) {
        return LibraryError(ENOMEM, std::string("norvi_listen_ssl: ") + failure.what());
    }
}

int norvi_ssl_counters(uint64_t counts[6]) {
    const std::shared_ptr<CSslSocketServer> server = Server();
    if (server == nullptr || counts == nullptr) {
        return LibraryError(ENOTCONN, "norvi_ssl_counters: no SSL request socket is served");
    }
    const CSslSocketServer::Counters counters = server->GetCounters();
    const uint64_t values[6] = {counters.m_Clients,  counters.m_Requests, counters.m_Answered,
                                counters.m_Orphaned, counters.m_Refused,  counters.m_Dropped};
    memcpy(counts, values, sizeof values);
    return 0;
}

}  // extern "C"
