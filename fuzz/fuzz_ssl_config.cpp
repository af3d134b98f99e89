// The SSL credential and host configuration records, read from the host's
// configuration document as the key service reads them. A record that was
// read must print as XML that reads back into a record printing the same.
//
// Input: the configuration document.
#include <string>

#include "fuzz/FuzzSupport.h"
#include "ssl/SSLCredentials.h"
#include "ssl/SSLHostConfigurations.h"

namespace {

template <typename Records>
void ReadAndRoundTrip(const char* path) {
    Records records;
    if (!VEXIL::FuzzDom().ConfigGetXml(path, records)) {
        return;
    }
    wxString printed;
    records.ToXML(printed);
    Records again;
    const std::string text = printed.utf8_str().data();
    VEXIL::FuzzCheck(again.FromXML(printed, "fuzz") == NorvCore::XMLObject::ParseOk,
                     "a printed record that does not read back", text);
    wxString reprinted;
    again.ToXML(reprinted);
    VEXIL::FuzzCheck(reprinted == printed, "a record that prints differently after a round trip",
                     text + "] vs [" + reprinted.utf8_str().data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    NorvCore::CDom& dom = VEXIL::FuzzDom();
    dom.SetConfigXml(wxString::FromUTF8(reinterpret_cast<const char*>(data), size));
    ReadAndRoundTrip<VEXIL::CSSLCredentials>("/SecurityConfiguration/SSLCredentials");
    ReadAndRoundTrip<VEXIL::CSSLHostConfigurations>("/SecurityConfiguration/SSLHostConfigurations");
    VEXIL::FuzzDropLogLines();
    return 0;
}
