// Requests per second through the whole SSL key service with an RSA-2048 key
// held by a SoftHSM token (credential kind "CAPI": the key decrypts inside
// the token, through one PKCS#11 session per worker), beside the same key
// read from a PEM file, measured in the same run and reported as a ratio.
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <wx/filename.h>

#include "BenchDriver.h"
#include "driver/standin/NorviControl.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "ssl/Pkcs11Module.h"
#include "ssl/SSLCertThread.h"

namespace {

const char kSoftHsm[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kPin[] = "bench-pin-2718";

// An RSA-2048 key as a PEM file and on a SoftHSM token "bench" (with its
// certificate), and a secret encrypted under it, in a folder removed at exit.
struct TokenMaterial {
    std::string folder;
    std::string cipher;
    std::string thumbprint;

    TokenMaterial() {
        char pattern[] = "/tmp/vexil-bench-p11-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr || access(kSoftHsm, R_OK) != 0) {
            return;
        }
        folder = made;
        // SoftHSM reads its configuration when the module is first initialized.
        setenv("SOFTHSM2_CONF", (folder + "/softhsm2.conf").c_str(), 1);
        const std::string pin = kPin;
        const std::string command =
            "cd '" + folder +
            "' && mkdir tokens && echo \"directories.tokendir = $PWD/tokens\" > "
            "softhsm2.conf && softhsm2-util --init-token --free --label bench --so-pin so-0000 "
            "--pin " +
            pin +
            " && openssl genrsa -out key.pem 2048 && openssl pkcs8 -topk8 -nocrypt -in key.pem "
            "-out key.p8 && softhsm2-util --import key.p8 --token bench --label k --id 01 --pin " +
            pin +
            " && openssl req -x509 -new -key key.pem -subj /CN=bench -days 2 -outform DER -out "
            "cert.der && pkcs11-tool --module " +
            kSoftHsm + " --token-label bench --login --pin " + pin +
            " --write-object cert.der --type cert --id 01 && openssl dgst -sha1 -r cert.der > "
            "cert.sha1 && openssl rsa -in key.pem -pubout -out key.pub && head -c 48 /dev/urandom "
            "> secret.bin && openssl pkeyutl -encrypt -pubin -inkey key.pub -in secret.bin -out "
            "secret.ct";
        if (system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0) {
            cipher = ReadFile(folder + "/secret.ct");
            thumbprint = ReadFile(folder + "/cert.sha1").substr(0, 40);
        }
    }
    ~TokenMaterial() {
        if (!folder.empty()) {
            wxFileName::Rmdir(folder, wxPATH_RMDIR_RECURSIVE);
        }
    }
};

// Seconds until a batch of TLS requests for host configuration id, submitted
// at once, is answered; -1 when any request failed.
double BatchSeconds(u32 id, const std::string& cipher, int batch) {
    const TlsRequest request = MakeTlsRequest(id, cipher);
    const auto started = std::chrono::steady_clock::now();
    const int64_t failures = AnswerBatch(request, batch);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return failures != 0 ? -1 : seconds;
}

// One run of the service with both credentials: the PEM key (host
// configuration 7) and the token key (8) take turns batch by batch, so that
// both see the same machine.
void BM_SslServiceTokenKeyVsPem(benchmark::State& state) {
    static const TokenMaterial keys;
    auto reset = Control<decltype(&norvi_test_reset)>("norvi_test_reset");
    if (keys.cipher.size() != 256 || keys.thumbprint.size() != 40 || reset == nullptr) {
        state.SkipWithError("no SoftHSM token, key material or driver stand-in");
        return;
    }
    reset();
    NorvCore::CDom dom(":memory:");
    dom.Set(VEXIL::CPkcs11Module::kModuleSetting, std::string(kSoftHsm));
    dom.SetConfigXml(wxString::Format(
        "<SecurityConfiguration><SSLCredentials>"
        "<SSLCredential id=\"1\" credentialType=\"PEM\" identifier=\"%s/key.pem\"/>"
        "<SSLCredential id=\"2\" credentialType=\"CAPI\" identifier=\"bench;%s\" "
        "passphrase=\"%s\"/></SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"7\" sslCredentialId=\"1\"/>"
        "<SSLHostConfiguration id=\"8\" sslCredentialId=\"2\"/>"
        "</SSLHostConfigurations></SecurityConfiguration>",
        keys.folder, keys.thumbprint, kPin));
    VEXIL::CSSLCertThread service(dom);
    service.start(50, true, 0);

    const int batch = static_cast<int>(state.range(0));
    double pemSeconds = 0;
    double tokenSeconds = 0;
    for (auto _ : state) {
        const double pem = BatchSeconds(7, keys.cipher, batch);
        const double token = BatchSeconds(8, keys.cipher, batch);
        if (pem < 0 || token < 0) {
            service.StopThread(L"bench");
            state.SkipWithError("some requests failed");
            return;
        }
        pemSeconds += pem;
        tokenSeconds += token;
    }
    service.StopThread(L"bench");
    const double requests = static_cast<double>(state.iterations()) * batch;
    state.SetItemsProcessed(state.iterations() * batch * 2);
    state.counters["token_requests_per_s"] = requests / tokenSeconds;
    state.counters["pem_requests_per_s"] = requests / pemSeconds;
    state.counters["ratio"] = pemSeconds / tokenSeconds;
}
BENCHMARK(BM_SslServiceTokenKeyVsPem)
    ->Arg(256)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
