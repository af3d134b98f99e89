// SSL requests of the driver, served at once by one request handler with the
// listener's checks, against a configuration whose host configuration 1 has
// a real key (fuzz/keys/service.pem) and 2 has none. A request that passes
// the checks gets exactly one response, one that does not gets none; every
// response carries the request's context and the size it announces.
//
// Input: the 80 bytes of the request header, then its data.
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <wx/base64.h>

#include "driver/standin/NorviControl.h"
#include "fuzz/FuzzSupport.h"
#include "host/NorviLoader.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLRequestHandler.h"

namespace {

typedef long (*TakeResponse)(void*, size_t, norvi_handle_t*);

std::string ConfigurationDocument() {
    std::ifstream file(VEXIL_FUZZ_KEY, std::ios::binary);
    std::stringstream pem;
    pem << file.rdbuf();
    VEXIL::FuzzCheck(!pem.str().empty(), "no key file", VEXIL_FUZZ_KEY);
    const std::string blob = wxBase64Encode(pem.str().data(), pem.str().size()).ToStdString();
    return "<SecurityConfiguration><SSLCredentials>"
           "<SSLCredential id=\"1\" name=\"web\" credentialType=\"PEM\" identifier=\"\" "
           "passphrase=\"\" details=\"\" credential=\"" +
           blob +
           "\"/></SSLCredentials><SSLHostConfigurations>"
           "<SSLHostConfiguration id=\"1\" name=\"web\" allInterfaces=\"true\" "
           "sslCredentialId=\"1\" specificIP=\"\"><AddressInfo/></SSLHostConfiguration>"
           "<SSLHostConfiguration id=\"2\" name=\"lost\" allInterfaces=\"true\" "
           "sslCredentialId=\"9\" specificIP=\"\"><AddressInfo/></SSLHostConfiguration>"
           "</SSLHostConfigurations></SecurityConfiguration>";
}

struct Harness {
    VEXIL::CSSLCertThread service{VEXIL::FuzzDom()};
    VEXIL::CSSLRequestHandler handler{service, "fuzz"};
    norvi_handle_t handle = norvi_open();
    TakeResponse take =
        reinterpret_cast<TakeResponse>(NorvCore::NorviSymbol("norvi_test_take_ssl_response"));

    Harness() {
        VEXIL::FuzzDom().SetConfigXml(wxString::FromUTF8(ConfigurationDocument().c_str()));
        service.OnSecurityConfigurationChanged();
        VEXIL::FuzzCheck(handle != nullptr && take != nullptr, "no driver stand-in", "");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    static Harness* const harness = new Harness;
    VEXIL::CFuzzReader input(data, size);
    std::string head = input.Bytes(sizeof(VEXIL::SSLRequestHeader));
    head.resize(sizeof(VEXIL::SSLRequestHeader), '\0');
    const VEXIL::SSLRequestHeader header = VEXIL::SSLRequestHeader::From(head.data());
    const std::string body = input.Rest();

    const bool served =
        harness->handler.ServeNow(harness->handle, header, body.data(), u32(body.size()));
    std::vector<char> buffer(NORVI_SSL_DATA_MAX + 1024);
    int responses = 0;
    for (long length; (length = harness->take(buffer.data(), buffer.size(), nullptr)) >= 0;) {
        ++responses;
        VEXIL::FuzzCheck(
            size_t(length) >= VEXIL::kSSLResponseOverhead && size_t(length) <= buffer.size(),
            "a response of a bad size", std::to_string(length));
        VEXIL::SSLResponse response;
        std::memcpy(&response, buffer.data(), sizeof response);
        VEXIL::FuzzCheck(
            le32toh(response.decryptedLen) + VEXIL::kSSLResponseOverhead == size_t(length),
            "a response whose size is not the one it announces", std::to_string(length));
        VEXIL::FuzzCheck(std::memcmp(response.requestContext, header.requestContext,
                                     sizeof header.requestContext) == 0,
                         "a response without the request's context", "");
    }
    VEXIL::FuzzCheck(responses == (served ? 1 : 0), "not one answer per valid request",
                     std::to_string(responses));
    VEXIL::FuzzDropLogLines();
    return 0;
}
