// The XML records of the SSL configuration print back what they parsed, and
// copy whole, address criteria included. Reading the lists is in the lookup
// and service tests.
#include <gtest/gtest.h>

#include <wx/string.h>

#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"

namespace {

using NorvCore::XMLObject;

// Parses text into record; a copy of it must print text back unchanged.
template <typename Record>
void ExpectRoundTrip(Record& record, const wxString& text) {
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(text, "test")) << text;
    Record copy;
    copy.CopyFrom(record);
    wxString printed;
    copy.ToXML(printed);
    EXPECT_EQ(text, printed);
}

TEST(SSLRecords, EveryRecordPrintsBackWhatItParsed) {
    VEXIL::CSSLCredential credential;
    ExpectRoundTrip(credential, wxString(L"<SSLCredential id=\"3\" name=\"Web &amp; mail\" "
                                         L"credentialType=\"P12\" identifier=\"/k\u00e9ys/a.p12\" "
                                         L"passphrase=\"a&quot;b&lt;c\" details=\"x\" "
                                         L"credential=\"QUJD\"/>"));
    EXPECT_EQ(wxS("a\"b<c"), credential.m_Passphrase);

    VEXIL::CSSLHostConfiguration host;
    ExpectRoundTrip(host,
                    L"<SSLHostConfiguration id=\"9\" name=\"intranet\" allInterfaces=\"true\" "
                    L"sslCredentialId=\"0\" specificIP=\"192.0.2.4\"><AddressInfo ipType=\"2\" "
                    L"ip=\"10.0.0.1\" ipMask=\"255.0.0.0\" ipFrom=\"10.0.0.5\" ipTo=\"10.0.0.9\" "
                    L"ipListId=\"-4\" ipNot=\"true\" mac=\"00:11:22:33:44:55\" macListId=\"7\" "
                    L"macNot=\"true\" macType=\"1\" portType=\"3\" ports=\"443,8443\" "
                    L"portListId=\"12\" portNot=\"true\"/></SSLHostConfiguration>");
    EXPECT_EQ(wxS("443,8443"), host.m_AddressInfo.m_Ports);
}

}  // namespace
