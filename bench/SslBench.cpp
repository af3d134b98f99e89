// Requests per second through the whole SSL key service with RSA-2048 keys:
// submitted as the driver would, read and queued by the listener, decrypted
// by the pool, answered on the driver channel. The reference is what the
// machine's OpenSSL does on all its processors with the same key size,
// measured in the same run by `openssl speed -multi <processors> rsa2048`.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <wx/filename.h>

#include "BenchDriver.h"
#include "driver/standin/NorviControl.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "ssl/SSLCertThread.h"

namespace {

// An RSA-2048 key and a 48-byte secret encrypted under it, made by the
// openssl command line in a folder removed at exit.
struct KeyMaterial {
    std::string folder;
    std::string cipher;

    KeyMaterial() {
        char pattern[] = "/tmp/vexil-bench-ssl-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) {
            return;
        }
        folder = made;
        const std::string command =
            "cd '" + folder +
            "' && openssl genrsa -out key.pem 2048 && openssl rsa -in key.pem -pubout -out key.pub"
            " && head -c 48 /dev/urandom > secret.bin && openssl pkeyutl -encrypt -pubin -inkey "
            "key.pub -in secret.bin -out secret.ct";
        if (system(("(" + command + ") >/dev/null 2>&1").c_str()) == 0) {
            cipher = ReadFile(folder + "/secret.ct");
        }
    }
    ~KeyMaterial() {
        if (!folder.empty()) {
            wxFileName::Rmdir(folder, wxPATH_RMDIR_RECURSIVE);
        }
    }
};

// Private-key operations per second of `openssl speed -multi <n> rsa2048`
// (its sign/s for all processes together); 0 when it can't be had.
double OpenSslReference() {
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    const std::string command = "openssl speed -multi " +
                                std::to_string(processors > 0 ? processors : 1) +
                                " rsa2048 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return 0;
    }
    double signPerSecond = 0;
    char line[512];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        // "rsa 2048 bits 0.000580s 0.000041s   1723.7  24659.8"
        std::istringstream fields(line);
        std::string rsa, bits, unit, signTime, verifyTime;
        double sign = 0;
        if (fields >> rsa >> bits >> unit >> signTime >> verifyTime >> sign && rsa == "rsa" &&
            bits == "2048" && unit == "bits") {
            signPerSecond = sign;
        }
    }
    pclose(pipe);
    return signPerSecond;
}

// Submits batches of TLS requests and waits for all their answers; the
// service runs with its default pool settings.
void BM_SslServiceRsa2048(benchmark::State& state) {
    static const KeyMaterial keys;
    static const double reference = OpenSslReference();
    auto reset = Control<decltype(&norvi_test_reset)>("norvi_test_reset");
    if (keys.cipher.size() != 256 || reset == nullptr) {
        state.SkipWithError("no key material or no driver stand-in");
        return;
    }
    reset();
    NorvCore::CDom dom(":memory:");
    dom.SetConfigXml(wxString::Format(
        "<SecurityConfiguration><SSLCredentials><SSLCredential id=\"1\" credentialType=\"PEM\" "
        "identifier=\"%s/key.pem\"/></SSLCredentials><SSLHostConfigurations>"
        "<SSLHostConfiguration id=\"7\" sslCredentialId=\"1\"/></SSLHostConfigurations>"
        "</SecurityConfiguration>",
        keys.folder));
    VEXIL::CSSLCertThread service(dom);
    service.start(50, true, 0);

    const TlsRequest request = MakeTlsRequest(7, keys.cipher);
    const int batch = static_cast<int>(state.range(0));
    int64_t failures = 0;
    const auto started = std::chrono::steady_clock::now();
    for (auto _ : state) {
        const int64_t failed = AnswerBatch(request, batch);
        failures += failed != 0 ? 1 : 0;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    service.StopThread(L"bench");
    if (failures != 0) {
        state.SkipWithError("some requests failed");
        return;
    }
    const double perSecond = static_cast<double>(state.iterations()) * batch / seconds;
    state.SetItemsProcessed(state.iterations() * batch);
    state.counters["requests_per_s"] = perSecond;
    state.counters["openssl_sign_per_s"] = reference;
    state.counters["ratio"] = reference > 0 ? perSecond / reference : 0;
}
BENCHMARK(BM_SslServiceRsa2048)
    ->Arg(512)
    ->Iterations(40)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
