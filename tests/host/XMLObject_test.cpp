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

void ExpectSameRecord(CRecord& a, CRecord& b) {
    EXPECT_EQ(a.GetId(), b.GetId());
    EXPECT_EQ(a.GetName(), b.GetName());
    EXPECT_EQ(a.m_Enabled, b.m_Enabled);
    EXPECT_EQ(a.m_Count, b.m_Count);
    EXPECT_EQ(a.m_Text, b.m_Text);
    EXPECT_EQ(a.m_Inner.m_Port, b.m_Inner.m_Port);
    EXPECT_EQ(a.m_Inner.m_Not, b.m_Inner.m_Not);
    ASSERT_EQ(a.m_Items.Children().size(), b.m_Items.Children().size());
    for (size_t i = 0; i < a.m_Items.Children().size(); ++i) {
        EXPECT_EQ(ItemAt(a.m_Items, i)->GetId(), ItemAt(b.m_Items, i)->GetId());
        EXPECT_EQ(ItemAt(a.m_Items, i)->GetName(), ItemAt(b.m_Items, i)->GetName());
        EXPECT_EQ(ItemAt(a.m_Items, i)->m_Weight, ItemAt(b.m_Items, i)->m_Weight);
    }
}

const char* const kFullRecord =
    "<Record id=\"12\" name=\"first &amp; best\" enabled=\"TRUE\" count=\"-5\" text=\"a&lt;b\">"
    "<Inner port=\"8443\" not=\"1\"/>"
    "<Items><Item id=\"1\" name=\"one\"/><Item id=\"2\" weight=\"9\"/></Items>"
    "</Record>";

}  // namespace

TEST(XMLObjectTest, ParsesAttributesChildAndList) {
    CRecord record;
    EXPECT_FALSE(record.WasParsed());
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(kFullRecord, "test"));
    EXPECT_TRUE(record.WasParsed());
    EXPECT_EQ(12, record.GetId());
    EXPECT_EQ("first & best", record.GetName());
    EXPECT_TRUE(record.m_Enabled);
    EXPECT_EQ(-5, record.m_Count);
    EXPECT_EQ("a<b", record.m_Text);
    EXPECT_EQ(8443, record.m_Inner.m_Port);
    EXPECT_TRUE(record.m_Inner.m_Not);
    EXPECT_TRUE(record.m_Inner.WasParsed());
    ASSERT_EQ(2u, record.m_Items.Children().size());
    EXPECT_EQ("one", ItemAt(record.m_Items, 0)->GetName());
    EXPECT_EQ(7, ItemAt(record.m_Items, 0)->m_Weight);
    EXPECT_EQ(2, ItemAt(record.m_Items, 1)->GetId());
    EXPECT_EQ(9, ItemAt(record.m_Items, 1)->m_Weight);
    EXPECT_TRUE(record.m_Items.IsCollection());
    EXPECT_FALSE(record.IsCollection());
}

TEST(XMLObjectTest, PrintingIsLosslessWithEscapesAndUnicode) {
    for (bool printDefaults : {true, false}) {
        CRecord original(printDefaults);
        original.SetId(-2147483647 - 1);
        original.SetName(
            wxString::FromUTF8("Gr\xC3\xBC\xC3\x9F"
                               "e \xE2\x9C\x93 \xF0\x9D\x84\x9E"));
        original.m_Enabled = true;
        original.m_Count = 2147483647;
        original.m_Text = "&<>\"' tab\there\nline\r\nend  ";
        original.m_Inner.m_Not = true;
        original.m_Items.Children().push_back(new CItem);
        ItemAt(original.m_Items, 0)->SetName("quote\"d");

        wxString text;
        original.ToXML(text);
        EXPECT_NE(wxNOT_FOUND, text.Find("&amp;&lt;&gt;&quot;&apos;")) << text;

        CRecord copy;
        ASSERT_EQ(XMLObject::ParseOk, copy.FromXML(text, "test")) << text;
        ExpectSameRecord(original, copy);
    }
}

TEST(XMLObjectTest, PrintsInBindingOrderAndLeavesOutDefaultsWhenAsked) {
    CRecord full(true);
    wxString text;
    full.ToXML(text);
    EXPECT_EQ(
        "<Record id=\"0\" name=\"\" enabled=\"false\" count=\"-1\" text=\"\"><Inner/><Items/>"
        "</Record>",
        text);

    CRecord compact(false);
    compact.m_Count = 3;
    compact.m_Inner.m_Port = 80;
    text.clear();
    compact.ToXML(text);
    EXPECT_EQ("<Record count=\"3\"><Inner port=\"80\"/><Items/></Record>", text);
}

TEST(XMLObjectTest, CharactersXmlCannotCarryAreLeftOut) {
    CRecord record;
    record.m_Text = wxString("a") + wxUniChar(1) + "b" + wxUniChar(0xFFFF) + "c";
    wxString text;
    record.ToXML(text);
    CRecord parsed;
    ASSERT_EQ(XMLObject::ParseOk, parsed.FromXML(text, "test")) << text;
    EXPECT_EQ("abc", parsed.m_Text);
}

TEST(XMLObjectTest, RefusesOtherElementsAndMalformedTextWithoutChange) {
    CRecord record;
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(kFullRecord, "test"));
    NorvCore::TakeOperatorLogLines();
    EXPECT_EQ(XMLObject::ParseWrongElement, record.FromXML("<Other id=\"3\"/>", "test"));
    EXPECT_EQ(XMLObject::ParseWrongElement, record.FromXML("<record id=\"3\"/>", "test"));
    EXPECT_EQ(XMLObject::ParseMalformed, record.FromXML("<Record id=\"3\">", "test"));
    EXPECT_EQ(XMLObject::ParseMalformed, record.FromXML("", nullptr));
    EXPECT_EQ(XMLObject::ParseMalformed, record.FromXML("id=3", nullptr));
    // A bad record is its reader's business, not the operator's.
    EXPECT_TRUE(NorvCore::TakeOperatorLogLines().empty());
    EXPECT_EQ(12, record.GetId());
    EXPECT_EQ(2u, record.m_Items.Children().size());
    EXPECT_TRUE(record.WasParsed());

    CRecord fresh;
    EXPECT_NE(XMLObject::ParseOk, fresh.FromXML("<Item id=\"1\"/>", "test"));
    EXPECT_FALSE(fresh.WasParsed());
}

TEST(XMLObjectTest, MissingUnknownAndUnparsableValues) {
    CRecord record;
    ASSERT_EQ(XMLObject::ParseOk, record.FromXML(kFullRecord, "test"));
    // A new parse starts from the defaults: what the text lacks is reset,
    // and values that do not parse keep the default.
    ASSERT_EQ(
        XMLObject::ParseOk,
        record.FromXML("<Record bogus=\"1\" count=\"12abc\" enabled=\"yes\" id=\"99999999999\">"
                       "<Unknown><Inner port=\"1\"/></Unknown></Record>",
                       "test"));
    EXPECT_TRUE(record.WasParsed());
    EXPECT_EQ(0, record.GetId());
    EXPECT_EQ("", record.GetName());
    EXPECT_FALSE(record.m_Enabled);
    EXPECT_EQ(-1, record.m_Count);
    EXPECT_EQ(443, record.m_Inner.m_Port);
    EXPECT_FALSE(record.m_Inner.WasParsed());
    EXPECT_TRUE(record.m_Items.Children().empty());

    const struct {
        const char* text;
        bool value;
    } flags[] = {{"true", true}, {"FALSE", false}, {"1", true}, {"0", false}, {" True ", true}};
    for (const auto& flag : flags) {
        CRecord parsed;
        parsed.m_Enabled = !flag.value;
        ASSERT_EQ(
            XMLObject::ParseOk,
            parsed.FromXML(wxString::Format("<Record enabled=\"%s\" count=\"+42\"/>", flag.text),
                           "test"));
        EXPECT_EQ(flag.value, parsed.m_Enabled) << flag.text;
        EXPECT_EQ(42, parsed.m_Count);
    }
}

TEST(XMLObjectTest, SetToDefaultsAndCopyFrom) {
    CRecord source;
    ASSERT_EQ(XMLObject::ParseOk, source.FromXML(kFullRecord, "test"));

    CRecord copy(false);
    copy.m_Items.Children().push_back(new CItem);
    copy.CopyFrom(source);
    EXPECT_TRUE(copy.WasParsed());
    EXPECT_TRUE(copy.m_Inner.WasParsed());
    ExpectSameRecord(source, copy);
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
    EXPECT_EQ(0, copy.GetId());
    EXPECT_EQ(-1, copy.m_Count);
    EXPECT_EQ("", copy.m_Text);
    EXPECT_EQ(443, copy.m_Inner.m_Port);
    EXPECT_TRUE(copy.m_Items.Children().empty());
}

namespace {

// Same element as CInner, another class: copied by printing and parsing.
class CInnerVariant : public CInner {
public:
    CInnerVariant() { AddAttribute(L"extra", &m_Extra, false); }
    wxString m_Extra;
};

}  // namespace

TEST(XMLObjectTest, CopyFromOtherClassGoesThroughTheText) {
    CInnerVariant variant;
    ASSERT_EQ(XMLObject::ParseOk, variant.FromXML("<Inner port=\"25\" extra=\"x\"/>", "test"));
    CInner inner;
    inner.CopyFrom(variant);
    EXPECT_EQ(25, inner.m_Port);
    EXPECT_TRUE(inner.WasParsed());

    // Another element: nothing is copied.
    CItem item;
    item.m_Weight = 3;
    inner.CopyFrom(item);
    EXPECT_EQ(25, inner.m_Port);
}

namespace {

class CStrict : public XMLObject {
public:
    explicit CStrict(bool resetBeforeParse) : XMLObject(false, resetBeforeParse) {
        AddAttribute(L"key", &m_Key, true);
        AddAttribute(L"value", &m_Value, 5, false);
        AddAttribute(L"label", &m_Label, false);
    }
    wxString GetElementName() const override { return "Strict"; }
    bool OnUnhandledAttribute(const wxString& name, const wxString&) override {
        return name != "forbidden";
    }
    bool OnUnhandledChildElement(const wxXmlNode&) override { return false; }
    bool m_Key;
    int m_Value;
    wxString m_Label;
};

}  // namespace

TEST(XMLObjectTest, RequiredAttributesAndRejections) {
    CStrict strict(true);
    wxString text;
    strict.ToXML(text);
    EXPECT_EQ("<Strict key=\"false\"/>", text);

    EXPECT_EQ(XMLObject::ParseMissingAttribute, strict.FromXML("<Strict value=\"1\"/>", "test"));
    EXPECT_FALSE(strict.WasParsed());
    EXPECT_EQ(XMLObject::ParseRejected, strict.FromXML("<Strict key=\"1\" forbidden=\"\"/>", "t"));
    EXPECT_EQ(XMLObject::ParseRejected, strict.FromXML("<Strict key=\"1\"><Child/></Strict>", "t"));
    EXPECT_FALSE(strict.WasParsed());
    EXPECT_EQ(XMLObject::ParseOk, strict.FromXML("<Strict key=\"1\" other=\"\"/>", "t"));
    EXPECT_TRUE(strict.m_Key);
}

TEST(XMLObjectTest, OverlayParseKeepsValuesTheTextLacks) {
    CStrict overlay(false);
    ASSERT_EQ(XMLObject::ParseOk,
              overlay.FromXML("<Strict key=\"1\" value=\"10\" label=\"a\"/>", "test"));
    ASSERT_EQ(XMLObject::ParseOk, overlay.FromXML("<Strict key=\"0\" label=\"b\"/>", "test"));
    EXPECT_FALSE(overlay.m_Key);
    EXPECT_EQ(10, overlay.m_Value);
    EXPECT_EQ("b", overlay.m_Label);
}

TEST(XMLObjectTest, AnItemThatFailsFailsTheList) {
    class CStrictList : public XMLObjectList {
    public:
        CStrictList() : XMLObjectList(true, true) {}
        wxString GetElementName() const override { return "List"; }
        XMLObject* CreateChild() const override { return new CStrict(true); }
    } list;
    EXPECT_EQ("Strict", list.GetChildElementName());
    EXPECT_EQ(XMLObject::ParseOk,
              list.FromXML("<List><Strict key=\"1\"/><Other/><Strict key=\"0\"/></List>", "t"));
    EXPECT_EQ(2u, list.Children().size());
    EXPECT_EQ(XMLObject::ParseMissingAttribute,
              list.FromXML("<List><Strict key=\"1\"/><Strict/></List>", "test"));
    EXPECT_FALSE(list.WasParsed());
}

namespace {

// A list without an element of its own: its items stand in the record.
class CInlineItems : public XMLObjectList {
public:
    CInlineItems() : XMLObjectList(false, true) {}
    XMLObject* CreateChild() const override { return new CItem; }
};

class CBag : public XMLObject {
public:
    CBag() : XMLObject(false, true) {
        AddAttribute(L"size", &m_Size, 0, false);
        AddChild(&m_Inner);
        AddChild(&m_Items);
    }
    wxString GetElementName() const override { return "Bag"; }
    int m_Size;
    CInner m_Inner;
    CInlineItems m_Items;
};

}  // namespace

TEST(XMLObjectTest, ListWithoutElementHoldsItemsInTheRecord) {
    CBag bag;
    const wxString text =
        "<Bag size=\"2\"><Item id=\"1\"/><Inner port=\"1\"/><Item id=\"2\" weight=\"3\"/></Bag>";
    ASSERT_EQ(XMLObject::ParseOk, bag.FromXML(text, "test"));
    ASSERT_EQ(2u, bag.m_Items.Children().size());
    EXPECT_EQ(3, static_cast<CItem*>(bag.m_Items.Children()[1])->m_Weight);
    EXPECT_EQ(1, bag.m_Inner.m_Port);

    wxString printed;
    bag.ToXML(printed);
    EXPECT_EQ(
        "<Bag size=\"2\"><Inner port=\"1\"/><Item id=\"1\" name=\"\" weight=\"7\"/>"
        "<Item id=\"2\" name=\"\" weight=\"3\"/></Bag>",
        printed);
    ASSERT_EQ(XMLObject::ParseOk, bag.FromXML(printed, "test"));
    EXPECT_EQ(2u, bag.m_Items.Children().size());
    ASSERT_EQ(XMLObject::ParseOk, bag.FromXML("<Bag/>", "test"));
    EXPECT_TRUE(bag.m_Items.Children().empty());
}

TEST(XMLObjectTest, ObjectWithoutElementNameMatchesNothing) {
    class CNameless : public XMLObject {
    public:
        CNameless() : XMLObject(true, true) { AddAttribute(L"a", &m_A, 1, false); }
        int m_A;
    } nameless;
    wxString text;
    nameless.ToXML(text);
    EXPECT_TRUE(text.empty());
    EXPECT_FALSE(nameless.ElementNameMatches(""));
    EXPECT_EQ(XMLObject::ParseWrongElement, nameless.FromXML("<X a=\"2\"/>", "test"));
    EXPECT_EQ(1, nameless.m_A);
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
    ASSERT_TRUE(dom.ConfigGetXml("/Config/Record/Items", items));
    EXPECT_EQ(1u, items.Children().size());

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
    const std::vector<std::string> lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("not well-formed")) << lines[0];
    CRecord record;
    EXPECT_FALSE(dom.ConfigGetXml("/Config/Record", record));

    ASSERT_TRUE(dom.SetConfigXml("<Config><Record id=\"2\"/></Config>"));
    EXPECT_FALSE(dom.SetConfigXml("<Config><Record id=\"3\"/>"));
    ASSERT_TRUE(dom.ConfigGetXml("/Config/Record", record));
    EXPECT_EQ(2, record.GetId());
}
