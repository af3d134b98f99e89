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

const wchar_t kAddressInfo[] =
    L"<AddressInfo ipType=\"2\" ip=\"10.0.0.1\" ipMask=\"255.0.0.0\" ipFrom=\"10.0.0.5\" "
    L"ipTo=\"10.0.0.9\" ipListId=\"-4\" ipNot=\"true\" mac=\"00:11:22:33:44:55\" "
    L"macListId=\"7\" macNot=\"true\" macType=\"1\" portType=\"3\" ports=\"443,8443\" "
    L"portListId=\"12\" portNot=\"true\"/>";

wxString Printed(const NorvCore::XMLObject& record) {
    wxString text;
    record.ToXML(text);
    return text;
}

TEST(SSLRecords, AddressCriteriaRoundTripWithEveryValue) {
    CAddressInfo info;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, info.FromXML(kAddressInfo, "test"));
    EXPECT_EQ(2, info.m_IpType);
    EXPECT_EQ(wxS("255.0.0.0"), info.m_IpMask);
    EXPECT_EQ(-4, info.m_IpListId);
    EXPECT_TRUE(info.m_MacNot);
    EXPECT_EQ(wxS("443,8443"), info.m_Ports);
    EXPECT_EQ(wxString(kAddressInfo), Printed(info));

    // Defaults are left out of the print and come back from it.
    CAddressInfo empty;
    EXPECT_EQ(wxS("<AddressInfo/>"), Printed(empty));
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, info.FromXML(Printed(empty), "test"));
    EXPECT_EQ(0, info.m_IpType);
    EXPECT_FALSE(info.m_IpNot);
    EXPECT_TRUE(info.m_Ip.empty());

    // The plain record has no element of its own.
    CIpPortInfo plain;
    EXPECT_TRUE(Printed(plain).empty());
    EXPECT_NE(NorvCore::XMLObject::ParseOk, plain.FromXML(kAddressInfo, "test"));
}

TEST(SSLRecords, CredentialKeepsSpecialCharactersAndPrintsEveryAttribute) {
    CSSLCredential credential;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk,
              credential.FromXML(L"<SSLCredential id=\"3\" name=\"Web &amp; mail\" "
                                 L"credentialType=\"P12\" identifier=\"/etc/k\u00e9ys/a.p12\" "
                                 L"passphrase=\"a&quot;b&lt;c&#10;d\" details=\"x\" "
                                 L"credential=\"QUJD\"/>",
                                 "test"));
    EXPECT_TRUE(credential.WasParsed());
    EXPECT_EQ(3, credential.GetId());
    EXPECT_EQ(wxS("Web & mail"), credential.GetName());
    EXPECT_EQ(wxS("P12"), credential.m_CredentialType);
    EXPECT_EQ(wxString(L"/etc/k\u00e9ys/a.p12"), credential.m_Identifier);
    EXPECT_EQ(wxS("a\"b<c\nd"), credential.m_Passphrase);
    EXPECT_EQ(wxS("QUJD"), credential.m_Credential);

    CSSLCredential again;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, again.FromXML(Printed(credential), "test"));
    EXPECT_EQ(Printed(credential), Printed(again));
    EXPECT_EQ(credential.m_Passphrase, again.m_Passphrase);

    // A credential prints its defaults too, so every attribute is there.
    CSSLCredential blank;
    const wxString text = Printed(blank);
    for (const wchar_t* name :
         {L"id=\"0\"", L"name=\"\"", L"credentialType=\"\"", L"identifier=\"\"", L"passphrase=\"\"",
          L"details=\"\"", L"credential=\"\""}) {
        EXPECT_NE(wxNOT_FOUND, text.Find(name)) << name;
    }
}

TEST(SSLRecords, HostConfigurationCarriesItsAddressChild) {
    const wxString text = wxString(
                              L"<SSLHostConfiguration id=\"9\" name=\"intranet\" "
                              L"allInterfaces=\"true\" sslCredentialId=\"0\" "
                              L"specificIP=\"192.0.2.4\">") +
                          kAddressInfo + L"</SSLHostConfiguration>";
    CSSLHostConfiguration host;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, host.FromXML(text, "test"));
    EXPECT_EQ(9, host.GetId());
    EXPECT_TRUE(host.m_AllInterfaces);
    EXPECT_EQ(0, host.m_SslCredentialId);
    EXPECT_EQ(wxS("192.0.2.4"), host.m_SpecificIP);
    EXPECT_EQ(wxS("443,8443"), host.m_AddressInfo.m_Ports);
    EXPECT_EQ(text, Printed(host));

    CSSLHostConfiguration copy;
    copy.CopyFrom(host);
    EXPECT_EQ(text, Printed(copy));
    EXPECT_TRUE(copy.WasParsed());
    copy.SetToDefaults();
    EXPECT_EQ(0, copy.m_AddressInfo.m_PortListId);
    EXPECT_FALSE(copy.WasParsed());
}

TEST(SSLRecords, ListsMakeTheirItemsAndPrintThemInOrder) {
    const wxString credentials =
        L"<SSLCredentials><SSLCredential id=\"1\" name=\"a\" credentialType=\"PEM\" "
        L"identifier=\"/k/a.pem\" passphrase=\"\" details=\"\" credential=\"\"/>"
        L"<SSLCredential id=\"2\" name=\"b\" credentialType=\"CAPI\" identifier=\"MY;00\" "
        L"passphrase=\"\" details=\"\" credential=\"\"/></SSLCredentials>";
    CSSLCredentials list;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, list.FromXML(credentials, "test"));
    ASSERT_EQ(2u, list.Children().size());
    EXPECT_EQ(wxS("CAPI"), static_cast<CSSLCredential*>(list.Children()[1])->m_CredentialType);
    EXPECT_EQ(credentials, Printed(list));

    // A new parse replaces the items; an element of another kind is refused
    // and leaves them alone.
    ASSERT_EQ(NorvCore::XMLObject::ParseOk,
              list.FromXML(L"<SSLCredentials><SSLCredential id=\"5\"/></SSLCredentials>", "t"));
    ASSERT_EQ(1u, list.Children().size());
    EXPECT_NE(NorvCore::XMLObject::ParseOk, list.FromXML(L"<SSLHostConfigurations/>", "test"));
    EXPECT_EQ(1u, list.Children().size());

    CSSLHostConfigurations hosts;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk,
              hosts.FromXML(L"<SSLHostConfigurations><SSLHostConfiguration id=\"4\" "
                            L"sslCredentialId=\"2\"/><SSLHostConfiguration id=\"4\" "
                            L"sslCredentialId=\"1\"/></SSLHostConfigurations>",
                            "test"));
    ASSERT_EQ(2u, hosts.Children().size());
    EXPECT_EQ(1, static_cast<CSSLHostConfiguration*>(hosts.Children()[1])->m_SslCredentialId);
    CSSLHostConfigurations copy;
    ASSERT_EQ(NorvCore::XMLObject::ParseOk, copy.FromXML(Printed(hosts), "test"));
    EXPECT_EQ(Printed(hosts), Printed(copy));
}

}  // namespace
