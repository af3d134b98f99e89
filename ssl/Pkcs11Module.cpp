#include "ssl/Pkcs11Module.h"

#include <dlfcn.h>

#include <cstring>
#include <new>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <wx/log.h>

#include "host/Dom.h"
#include "host/Trace.h"
#include "ssl/RSAKey.h"

namespace VEXIL {

namespace {

// p11-kit's proxy: the path that pkg-config gave at build time, and the bare
// name, which the dynamic linker finds wherever the platform keeps it.
#ifdef VEXIL_P11KIT_PROXY
const char* const kDefaultModules[] = {VEXIL_P11KIT_PROXY, "p11-kit-proxy.so"};
#else
const char* const kDefaultModules[] = {"p11-kit-proxy.so"};
#endif

// Bounds on what a module may report, so that no answer makes us allocate
// without limit.
const CK_ULONG kMaxSlots = 1024;

std::mutex& ModulesLock() {
    static std::mutex lock;
    return lock;
}

// Modules by path (ModulesLock). Never destroyed: a module is never unloaded,
// and threads may still use it while the process ends.
std::map<std::string, CPkcs11Module*>& Modules() {
    static auto* modules = new std::map<std::string, CPkcs11Module*>;
    return *modules;
}

}  // namespace

CPkcs11Module::CPkcs11Module(const std::string& path, CK_FUNCTION_LIST* functions)
    : m_Path(path), m_Functions(functions) {}

CPkcs11Module* CPkcs11Module::Configured(std::string& name) {
    NorvCore::CDom* dom = NorvCore::CDom::Current();
    name = dom != nullptr ? dom->Get(kModuleSetting) : std::string();
    if (!name.empty()) {
        return Get(name);
    }
    CPkcs11Module* module = nullptr;
    for (const char* candidate : kDefaultModules) {
        name = candidate;
        module = Get(name);
        if (module != nullptr) {
            break;
        }
    }
    return module;
}

CPkcs11Module* CPkcs11Module::Get(const std::string& path) {
    std::lock_guard<std::mutex> lock(ModulesLock());
    auto found = Modules().find(path);
    if (found != Modules().end()) {
        return found->second;
    }
    // A library that loads but fails later stays mapped: unloading it could
    // pull code from under another user of the same library in this process.
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        wxLogError("CPkcs11Module: '%.128s' can't be loaded: %.128s", path, dlerror());
        return nullptr;
    }
    CK_C_GetFunctionList getFunctionList =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    CK_FUNCTION_LIST* functions = nullptr;
    if (getFunctionList == nullptr || getFunctionList(&functions) != CKR_OK ||
        functions == nullptr) {
        wxLogError("CPkcs11Module: '%.128s' is not a PKCS#11 module", path);
        return nullptr;
    }
    // The module locks with the system's primitives, so that keys of several
    // workers may use it at once. Another user of the library in this process
    // may have initialized it already, which serves as well.
    CK_C_INITIALIZE_ARGS args;
    std::memset(&args, 0, sizeof args);
    args.flags = CKF_OS_LOCKING_OK;
    const CK_RV rv = functions->C_Initialize(&args);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        wxLogError("CPkcs11Module: C_Initialize of '%.128s' failed: CKR 0x%lX", path, rv);
        return nullptr;
    }
    CPkcs11Module* module = new (std::nothrow) CPkcs11Module(path, functions);
    if (module != nullptr) {
        Modules()[path] = module;
        NORV_TRACE(CRSAKey::kTraceCategory,
                   wxString::Format("CPkcs11Module: '%.128s' loaded", path));
    }
    return module;
}

bool CPkcs11Module::FindToken(const std::string& label, CK_SLOT_ID& slot,
                              CK_FLAGS& tokenFlags) const {
    // Labels are 32 bytes, blank-padded; a longer name matches no token.
    if (label.size() > sizeof(CK_TOKEN_INFO::label)) {
        return false;
    }
    std::vector<CK_SLOT_ID> slots;
    CK_ULONG count = 0;
    CK_RV rv = m_Functions->C_GetSlotList(CK_TRUE, nullptr, &count);
    // Tokens may come between the two calls; a few tries are enough.
    for (int attempt = 0; attempt < 3 && (rv == CKR_OK || rv == CKR_BUFFER_TOO_SMALL); ++attempt) {
        slots.resize(count < kMaxSlots ? count : kMaxSlots);
        count = slots.size();
        rv = m_Functions->C_GetSlotList(CK_TRUE, slots.data(), &count);
        if (rv == CKR_OK) {
            break;
        }
    }
    if (rv != CKR_OK) {
        wxLogError("CPkcs11Module: C_GetSlotList of '%.128s' failed: CKR 0x%lX", m_Path, rv);
        return false;
    }
    slots.resize(count < slots.size() ? count : slots.size());
    for (CK_SLOT_ID candidate : slots) {
        CK_TOKEN_INFO info;
        if (m_Functions->C_GetTokenInfo(candidate, &info) != CKR_OK) {
            continue;
        }
        size_t length = sizeof info.label;
        while (length > 0 && info.label[length - 1] == ' ') {
            --length;
        }
        if (length == label.size() && std::memcmp(info.label, label.data(), length) == 0) {
            slot = candidate;
            tokenFlags = info.flags;
            return true;
        }
    }
    return false;
}

CK_RV CPkcs11Module::Login(CK_SESSION_HANDLE session, CK_SLOT_ID slot, const std::string& pin) {
    PinDigest digest;
    unsigned int digestLength = 0;
    if (EVP_Digest(pin.data(), pin.size(), digest.data(), &digestLength, EVP_sha256(), nullptr) !=
            1 ||
        digestLength != digest.size()) {
        return CKR_HOST_MEMORY;
    }
    std::lock_guard<std::mutex> lock(m_LoginLock);
    CK_UTF8CHAR* const text = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(pin.data()));
    const CK_RV rv = m_Functions->C_Login(session, CKU_USER, text, pin.size());
    if (rv == CKR_OK) {
        m_AcceptedPins[slot] = digest;
        return CKR_OK;
    }
    if (rv != CKR_USER_ALREADY_LOGGED_IN) {
        return rv;
    }
    auto accepted = m_AcceptedPins.find(slot);
    if (accepted == m_AcceptedPins.end()) {
        return rv;
    }
    return CRYPTO_memcmp(accepted->second.data(), digest.data(), digest.size()) == 0
               ? CKR_OK
               : CKR_PIN_INCORRECT;
}

}  // namespace VEXIL
