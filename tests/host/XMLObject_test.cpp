// XML-mapped records: parsing, printing back, copying, and lookup of
// records in the configuration document of CDom.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/Dom.h"
#include "host/IdObject.h"
#include "host/Trace.h"
#include "host/XMLObject.h"
#include "host/XMLObjectList.h"

using NorvCore::CDom;
using NorvCore::CIdNameObject;
using NorvCore::XMLObject;
using NorvCore::XMLObjectList;

namespace {

class CItem : public CIdNameObject {
public:
    CItem() : CIdNameObject(true) { AddAttribute(L"weight", &m_Weight, 7, false); }
    wxString GetElementName() const override { return "Item"; }
    int m_Weight;
};

class CItems : public XMLObjectList {
public:
    CItems() : XMLObjectList(false, true) {}
    wxString GetElementName() const override { return "Items"; }
    XMLObject* CreateChild() const override { return new CItem; }
};

class CInner : public XMLObject {
public:
    CInner() : XMLObject(false, true) {
        AddAttribute(L"port", &m_Port, 443, false);
        AddAttribute(L"not", &m_Not, false);
    }
    wxString GetElementName() const override { return "Inner"; }
    int m_Port;
    bool m_Not;
};

class CRecord : public CIdNameObject {
public:
    explicit CRecord(bool printDefaults = true) : CIdNameObject(printDefaults) {
        AddAttribute(L"enabled", &m_Enabled, false);
        AddAttribute(L"count", &m_Count, -1, false);
        AddAttribute(L"text", &m_Text, false);
        AddChild(&m_Inner);
        AddChild(&m_Items);
    }
    wxString GetElementName() const override { return "Record"; }
    bool m_Enabled;
    int m_Count;
    wxString m_Text;
    CInner m_Inner;
    CItems m_Items;
};

CItem* ItemAt(CItems& items, size_t index) {
    return static_cast<CItem*>(items.Children()[index]);
}

wxString Printed(const XMLObject& object) {
    wxString text;
    object.ToXML(text);
    return text;
}

const char* const kFullRecord =
    "<Record id=\"12\" name=\"first &amp; best\" enabled=\"TRUE\" count=\"-5\" text=\"a&lt;b\">"
    "<Inner port=\"8443\" not=\"1\"/>"
    "<Items><Item id=\"1\" name=\"one\"/><Item id=\"2\" weight=\"9\"/></Items>"
    "</Record>";

}  // namespace

TEST(XMLObjectTest, ParsesAttributesChildAndListFromDefaults) {
    CRecord record;
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(kFullRecord, "test"));
    EXPECT_TRUE(record.WasParsed());
    EXPECT_TRUE(record.m_Inner.WasParsed());
    EXPECT_EQ(
        "<Record id=\"12\" name=\"first &amp; best\" enabled=\"true\" count=\"-5\" "
        "text=\"a&lt;b\"><Inner port=\"8443\" not=\"true\"/><Items><Item id=\"1\" name=\"one\" "
        "weight=\"7\"/><Item id=\"2\" name=\"\" weight=\"9\"/></Items></Record>",
        Printed(record));

    // A new parse starts from the defaults and keeps them for values that do not parse.
    ASSERT_EQ(
        XMLObject::ParseOk,
        record.FromXML("<Record bogus=\"1\" count=\"12abc\" enabled=\"yes\" id=\"99999999999\">"
                       "<Unknown><Inner port=\"1\"/></Unknown></Record>",
                       "test"));
    EXPECT_TRUE(record.WasParsed());
    EXPECT_FALSE(record.m_Inner.WasParsed());
    EXPECT_EQ(
        "<Record id=\"0\" name=\"\" enabled=\"false\" count=\"-1\" text=\"\"><Inner/><Items/>"
        "</Record>",
        Printed(record));

    // Blanks around a value and a plus sign are taken.
    CRecord parsed;
    ASSERT_EQ(XMLObject::ParseOk,
              parsed.FromXML("<Record enabled=\" True \" count=\" +42 \"/>", "test"));
    EXPECT_TRUE(parsed.m_Enabled);
    EXPECT_EQ(42, parsed.m_Count);
}

TEST(XMLObjectTest, PrintingIsLosslessWithEscapesAndUnicode) {
    CRecord original(false);
    original.SetId(-2147483647 - 1);
    original.SetName(
        wxString::FromUTF8("Gr\xC3\xBC\xC3\x9F"
                           "e \xE2\x9C\x93 \xF0\x9D\x84\x9E"));
    original.m_Count = 2147483647;
    original.m_Text = "&<>\"' tab\there\nline\r\nend  ";
    original.m_Items.Children().push_back(new CItem);
    ItemAt(original.m_Items, 0)->SetName("quote\"d");
    const wxString text = Printed(original);
    EXPECT_NE(wxNOT_FOUND, text.Find("&amp;&lt;&gt;&quot;&apos;")) << text;
    CRecord copy(false);
    ASSERT_EQ(XMLObject::ParseOk, copy.FromXML(text, "test")) << text;
    EXPECT_EQ(text, Printed(copy));
    EXPECT_EQ(original.GetName(), copy.GetName());
    EXPECT_EQ(original.m_Text, copy.m_Text);
    EXPECT_EQ(-2147483647 - 1, copy.GetId());
    EXPECT_EQ(2147483647, copy.m_Count);

    // Characters that XML cannot carry are left out.
    CRecord record;
    record.m_Text = wxString("a") + wxUniChar(1) + "b" + wxUniChar(0xFFFF) + "c";
    CRecord parsed;
    ASSERT_EQ(XMLObject::ParseOk, parsed.FromXML(Printed(record), "test"));
    EXPECT_EQ("abc", parsed.m_Text);
}

TEST(XMLObjectTest, RefusedTextLeavesTheRecordAsItWas) {
    CRecord record;
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(kFullRecord, "test"));
    NorvCore::TakeOperatorLogLines();
    const struct {
        const char* text;
        int result;
    } cases[] = {{"<Other id=\"3\"/>", XMLObject::ParseWrongElement},
                 {"<record id=\"3\"/>", XMLObject::ParseWrongElement},
                 {"<Record id=\"3\">", XMLObject::ParseMalformed},
                 {"", XMLObject::ParseMalformed},
                 {"id=3", XMLObject::ParseMalformed}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.result, record.FromXML(c.text, nullptr)) << c.text;
    }
    // A bad record is its reader's business, not the operator's.
    EXPECT_TRUE(NorvCore::TakeOperatorLogLines().empty());
    EXPECT_TRUE(record.WasParsed());
    CRecord full;
    full.FromXML(kFullRecord, "test");
    EXPECT_EQ(Printed(full), Printed(record));
}

TEST(XMLObjectTest, SetToDefaultsAndCopyFrom) {
    CRecord source;
    ASSERT_EQ(XMLObject::ParseOk, source.FromXML(kFullRecord, "test"));

    CRecord copy;
    copy.m_Items.Children().push_back(new CItem);
    copy.CopyFrom(source);
    EXPECT_TRUE(copy.WasParsed());
    EXPECT_TRUE(copy.m_Inner.WasParsed());
    EXPECT_EQ(Printed(source), Printed(copy));
    // The copy owns items of its own.
    ASSERT_EQ(2u, copy.m_Items.Children().size());
    EXPECT_NE(source.m_Items.Children()[0], copy.m_Items.Children()[0]);
    ItemAt(source.m_Items, 0)->SetName("changed");
    EXPECT_EQ("one", ItemAt(copy.m_Items, 0)->GetName());

    copy.CopyFrom(copy);
    EXPECT_EQ(2u, copy.m_Items.Children().size());

    copy.SetToDefaults();
    EXPECT_FALSE(copy.WasParsed());
    EXPECT_FALSE(copy.m_Inner.WasParsed());
    EXPECT_EQ(Printed(CRecord()), Printed(copy));
}

TEST(ConfigGetXmlTest, FindsRecordsByAbsolutePath) {
    CDom dom(":memory:");
    CRecord record;
    EXPECT_FALSE(dom.ConfigGetXml("/Config/Record", record));

    ASSERT_TRUE(dom.SetConfigXml(wxString::FromUTF8(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<Config>\n  <Other><Record id=\"1\"/></Other>\n"
        "  <Record id=\"5\" name=\"caf\xC3\xA9\"><Items><Item id=\"8\"/></Items></Record>\n"
        "  <Record id=\"6\"/>\n"
        "  <Items><Item id=\"30\"/><Item id=\"31\"/></Items>\n</Config>")));

    ASSERT_TRUE(dom.ConfigGetXml("/Config/Record", record));
    EXPECT_EQ(5, record.GetId());
    EXPECT_EQ(wxString::FromUTF8("caf\xC3\xA9"), record.GetName());
    EXPECT_EQ(1u, record.m_Items.Children().size());
    ASSERT_TRUE(dom.ConfigGetXml("/Config/Other/Record", record));
    EXPECT_EQ(1, record.GetId());

    CItems items;
    ASSERT_TRUE(dom.ConfigGetXml("/Config/Items", items));
    EXPECT_EQ(2u, items.Children().size());

    for (const char* path : {"/Config/Missing", "/Other/Record", "Config/Record", "/Config//Record",
                             "/Config/Record/", "/", ""}) {
        EXPECT_FALSE(dom.ConfigGetXml(path, record)) << path;
    }
    // The element exists but is not the object's.
    EXPECT_FALSE(dom.ConfigGetXml("/Config/Items", record));
    EXPECT_EQ(1, record.GetId());
}

TEST(ConfigGetXmlTest, MalformedDocumentIsRefusedAndTheOldOneKept) {
    CDom dom(":memory:");
    NorvCore::TakeOperatorLogLines();
    EXPECT_FALSE(dom.SetConfigXml("<Config><Record id=\"1\"></Config>"));
    EXPECT_FALSE(dom.SetConfigXml(""));
    // The refusal is the operator's to see; the parser's own messages are not.
    EXPECT_EQ(2u, NorvCore::TakeOperatorLogLines().size());
    CRecord record;
    EXPECT_FALSE(dom.ConfigGetXml("/Config/Record", record));

    ASSERT_TRUE(dom.SetConfigXml("<Config><Record id=\"2\"/></Config>"));
    EXPECT_FALSE(dom.SetConfigXml("<Config><Record id=\"3\"/>"));
    ASSERT_TRUE(dom.ConfigGetXml("/Config/Record", record));
    EXPECT_EQ(2, record.GetId());
}
