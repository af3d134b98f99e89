// The XML records of the SSL configuration and their address criteria: they
// parse, print back without loss and copy whole.
#include <gtest/gtest.h>

#include <wx/string.h>

#include "config/AddressInfo.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLCredentials.h"
#include "ssl/SSLHostConfiguration.h"
#include "ssl/SSLHostConfigurations.h"

namespace {

using namespace VEXIL;
using NorvCore::XMLObject;

const wchar_t kAddressInfo[] =
    L"<AddressInfo ipType=\"2\" ip=\"10.0.0.1\" ipMask=\"255.0.0.0\" ipFrom=\"10.0.0.5\" "
    L"ipTo=\"10.0.0.9\" ipListId=\"-4\" ipNot=\"true\" mac=\"00:11:22:33:44:55\" "
    L"macListId=\"7\" macNot=\"true\" macType=\"1\" portType=\"3\" ports=\"443,8443\" "
    L"portListId=\"12\" portNot=\"true\"/>";

std::string Printed(const XMLObject& record) {
    wxString text;
    record.ToXML(text);
    return text.utf8_str().data();
}

// Parses text into record, which must print it back unchanged, as must a
// copy of it.
template <typename Record>
void ExpectRoundTrip(Record& record, const wxString& text) {
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(text, "test")) << text;
    EXPECT_EQ(text.utf8_str().data(), Printed(record));
    Record copy;
    copy.CopyFrom(record);
    EXPECT_EQ(text.utf8_str().data(), Printed(copy));
}

TEST(SSLRecords, EveryRecordPrintsBackWhatItParsed) {
    CAddressInfo address;
    ExpectRoundTrip(address, kAddressInfo);
    EXPECT_EQ(-4, address.m_IpListId);
    // Defaults are left out of the print, and a parse starts from them.
    ExpectRoundTrip(address, wxS("<AddressInfo/>"));
    // The plain record has no element of its own.
    CIpPortInfo plain;
    EXPECT_TRUE(Printed(plain).empty());
    EXPECT_NE(XMLObject::ParseOk, plain.FromXML(kAddressInfo, "test"));

    // A credential prints its defaults too, so every attribute is there.
    CSSLCredential credential;
    ExpectRoundTrip(credential,
                    wxS("<SSLCredential id=\"0\" name=\"\" credentialType=\"\" "
                        "identifier=\"\" passphrase=\"\" details=\"\" credential=\"\"/>"));
    ExpectRoundTrip(credential, wxString(L"<SSLCredential id=\"3\" name=\"Web &amp; mail\" "
                                         L"credentialType=\"P12\" identifier=\"/k\u00e9ys/a.p12\" "
                                         L"passphrase=\"a&quot;b&lt;c\" details=\"x\" "
                                         L"credential=\"QUJD\"/>"));
    EXPECT_EQ(wxS("a\"b<c"), credential.m_Passphrase);
    EXPECT_EQ(wxString(L"/k\u00e9ys/a.p12"), credential.m_Identifier);

    CSSLHostConfiguration host;
    ExpectRoundTrip(host, wxString(L"<SSLHostConfiguration id=\"9\" name=\"intranet\" "
                                   L"allInterfaces=\"true\" sslCredentialId=\"0\" "
                                   L"specificIP=\"192.0.2.4\">") +
                              kAddressInfo + L"</SSLHostConfiguration>");
    EXPECT_EQ(wxS("443,8443"), host.m_AddressInfo.m_Ports);
    EXPECT_TRUE(host.WasParsed());
    host.SetToDefaults();
    EXPECT_EQ(0, host.m_AddressInfo.m_PortListId);
    EXPECT_FALSE(host.WasParsed());
}

TEST(SSLRecords, ListsMakeTheirItemsInOrder) {
    CSSLCredentials credentials;
    ExpectRoundTrip(credentials,
                    wxS("<SSLCredentials><SSLCredential id=\"1\" name=\"a\" credentialType=\"PEM\" "
                        "identifier=\"/k/a.pem\" passphrase=\"\" details=\"\" credential=\"\"/>"
                        "<SSLCredential id=\"2\" name=\"b\" credentialType=\"CAPI\" "
                        "identifier=\"MY;00\" passphrase=\"\" details=\"\" credential=\"\"/>"
                        "</SSLCredentials>"));
    ASSERT_EQ(2u, credentials.Children().size());
    EXPECT_EQ(wxS("CAPI"),
              static_cast<CSSLCredential*>(credentials.Children()[1])->m_CredentialType);
    // A new parse replaces the items; an element of another kind is refused
    // and leaves them alone.
    ASSERT_EQ(XMLObject::ParseOk,
              credentials.FromXML(L"<SSLCredentials><SSLCredential/></SSLCredentials>", "t"));
    EXPECT_EQ(1u, credentials.Children().size());
    EXPECT_NE(XMLObject::ParseOk, credentials.FromXML(L"<SSLHostConfigurations/>", "test"));
    EXPECT_EQ(1u, credentials.Children().size());

    CSSLHostConfigurations hosts;
    const wxString host =
        wxS("<SSLHostConfiguration id=\"4\" name=\"\" allInterfaces=\"false\" "
            "sslCredentialId=\"%d\" specificIP=\"\"><AddressInfo/></SSLHostConfiguration>");
    ExpectRoundTrip(hosts, "<SSLHostConfigurations>" + wxString::Format(host, 2) +
                               wxString::Format(host, 1) + "</SSLHostConfigurations>");
    ASSERT_EQ(2u, hosts.Children().size());
    EXPECT_EQ(1, static_cast<CSSLHostConfiguration*>(hosts.Children()[1])->m_SslCredentialId);
}

}  // namespace
