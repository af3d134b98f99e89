// The norvi_* functions of host/norvi.h, as forwarders into libnorvi.so,
// which is opened on the first call of any of them. A machine without the
// library fails only when the driver is needed, and then cleanly.
#include "host/NorviLoader.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <string>

#include "host/norvi.h"

namespace NorvCore {
namespace {

const char kLibraryName[] = "libnorvi.so";

// The entry points of the library, in the order of kEntryNames.
enum EntryIndex {
    kOpen,
    kClose,
    kGetError,
    kRegisterEvent,
    kGetSslRequest,
    kSslResponse,
    kAddBlacklist,
    kEntryCount
};

const char* const kEntryNames[kEntryCount] = {
    "norvi_open",           "norvi_close",           "norvi_get_error",
    "norvi_register_event", "norvi_get_ssl_request", "norvi_ssl_response",
    "norvi_add_blacklist",
};

// Opens libnorvi.so once per process and keeps its handle and entry points,
// or the reason why it could not. All members are written once, inside
// Load() under m_Once, and only read after std::call_once has returned. The
// object is constant-initialised and trivially destructible, so any static
// initialiser may call in, and threads still calling at exit find it intact.
// The library is never unloaded: its functions may be running on any thread.
class CNorviLoader {
public:
    constexpr CNorviLoader() = default;

    // The loader after its one attempt to load the library.
    static const CNorviLoader& Loaded();

    bool Available() const { return m_Library != nullptr; }
    // "libnorvi.so could not be loaded: <reason>" when not Available().
    const char* Failure() const { return m_Failure; }
    void* Symbol(const char* name) const { return Available() ? dlsym(m_Library, name) : nullptr; }

    template <typename Function>
    Function Entry(EntryIndex index) const {
        return reinterpret_cast<Function>(m_Entries[index]);
    }

private:
    void Load();
    // Opens the library that NORVI_LIBRARY names, else the one beside the
    // host core, else the one the system finds. Null with the reason in
    // failure when it can't.
    static void* OpenLibrary(std::string& failure);
    static void* TryOpen(const std::string& path, std::string& failure);
    // Resolves every entry point; false with the reason when one is missing
    // or resolves into the host core itself (which would call itself).
    bool ResolveEntries(std::string& failure);

    std::once_flag m_Once;
    void* m_Library = nullptr;
    void* m_Entries[kEntryCount] = {};
    char m_Failure[512] = {};
};

CNorviLoader g_Loader;

const CNorviLoader& CNorviLoader::Loaded() {
    std::call_once(g_Loader.m_Once, [] { g_Loader.Load(); });
    return g_Loader;
}

void CNorviLoader::Load() {
    try {
        std::string failure;
        void* const library = OpenLibrary(failure);
        if (library != nullptr) {
            m_Library = library;
            if (ResolveEntries(failure)) {
                return;
            }
            m_Library = nullptr;
            dlclose(library);
        }
        snprintf(m_Failure, sizeof m_Failure, "%s could not be loaded: %s", kLibraryName,
                 failure.c_str());
    } catch (const std::bad_alloc&) {
        m_Library = nullptr;
        snprintf(m_Failure, sizeof m_Failure, "%s could not be loaded: out of memory",
                 kLibraryName);
    }
}

void* CNorviLoader::OpenLibrary(std::string& failure) {
    const char* const chosen = getenv("NORVI_LIBRARY");
    if (chosen != nullptr && chosen[0] != '\0') {
        return TryOpen(chosen, failure);
    }
    Dl_info self;
    if (dladdr(&g_Loader, &self) != 0 && self.dli_fname != nullptr) {
        std::string beside = self.dli_fname;
        const size_t slash = beside.rfind('/');
        if (slash != std::string::npos) {
            beside.replace(slash + 1, std::string::npos, kLibraryName);
            if (access(beside.c_str(), F_OK) == 0) {
                return TryOpen(beside, failure);
            }
        }
    }
    return TryOpen(kLibraryName, failure);
}

void* CNorviLoader::TryOpen(const std::string& path, std::string& failure) {
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason = dlerror();
        failure = reason != nullptr ? reason : path + ": unknown error";
    }
    return library;
}

bool CNorviLoader::ResolveEntries(std::string& failure) {
    Dl_info self;
    const void* const selfBase = dladdr(&g_Loader, &self) != 0 ? self.dli_fbase : nullptr;
    for (int index = 0; index < kEntryCount; ++index) {
        dlerror();
        void* const address = dlsym(m_Library, kEntryNames[index]);
        if (address == nullptr) {
            const char* const reason = dlerror();
            failure = reason != nullptr ? reason : std::string(kEntryNames[index]) + " is null";
            return false;
        }
        Dl_info owner;
        if (selfBase != nullptr && dladdr(address, &owner) != 0 && owner.dli_fbase == selfBase) {
            failure = std::string(kEntryNames[index]) + " resolves into the host core itself";
            return false;
        }
        m_Entries[index] = address;
    }
    return true;
}

}  // namespace

void* NorviSymbol(const char* name) {
    return name != nullptr ? CNorviLoader::Loaded().Symbol(name) : nullptr;
}

}  // namespace NorvCore

using NorvCore::CNorviLoader;

extern "C" {

norvi_handle_t norvi_open(void) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    return loader.Available() ? loader.Entry<norvi_handle_t (*)()>(NorvCore::kOpen)() : nullptr;
}

void norvi_close(norvi_handle_t handle) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    if (loader.Available()) {
        loader.Entry<void (*)(norvi_handle_t)>(NorvCore::kClose)(handle);
    }
}

int norvi_get_error(norvi_handle_t handle, char* buffer, size_t size) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    if (loader.Available()) {
        const int result = loader.Entry<int (*)(norvi_handle_t, char*, size_t)>(
            NorvCore::kGetError)(handle, buffer, size);
        // Callers print the text: it ends inside the buffer, whatever the
        // library wrote.
        if (buffer != nullptr && size > 0) {
            buffer[size - 1] = '\0';
        }
        return result;
    }
    if (buffer == nullptr || size == 0) {
        return EINVAL;
    }
    snprintf(buffer, size, "%s", loader.Failure());
    return 0;
}

int norvi_register_event(norvi_handle_t handle, int kind, int event) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    return loader.Available() ? loader.Entry<int (*)(norvi_handle_t, int, int)>(
                                    NorvCore::kRegisterEvent)(handle, kind, event)
                              : ENOSYS;
}

int norvi_get_ssl_request(norvi_handle_t handle, void* header, const void** data,
                          uint32_t* dataLen) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    return loader.Available()
               ? loader.Entry<int (*)(norvi_handle_t, void*, const void**, uint32_t*)>(
                     NorvCore::kGetSslRequest)(handle, header, data, dataLen)
               : ENOSYS;
}

int norvi_ssl_response(norvi_handle_t handle, const void* response, size_t size) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    return loader.Available() ? loader.Entry<int (*)(norvi_handle_t, const void*, size_t)>(
                                    NorvCore::kSslResponse)(handle, response, size)
                              : ENOSYS;
}

int norvi_add_blacklist(norvi_handle_t handle, const void* request) {
    const CNorviLoader& loader = CNorviLoader::Loaded();
    return loader.Available() ? loader.Entry<int (*)(norvi_handle_t, const void*)>(
                                    NorvCore::kAddBlacklist)(handle, request)
                              : ENOSYS;
}

}  // extern "C"
