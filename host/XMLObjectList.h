// XMLObjectList: a record whose element holds any number of items, child
// elements of one kind, each parsed into an object that the list makes with
// its factory (CreateChild) and owns.
//
// A list with an element name of its own prints and parses as
// <List ...><Item/><Item/></List>. A list without one stands for its items
// directly inside the element of the record that registered it as a child
// (<Record><Item/><Item/></Record>); such a list is only useful as a child.
//
// Thread safety: none of its own, as for XMLObject.
#pragma once

#include <vector>

#include "host/XMLObject.h"

namespace NorvCore {

// The items of a list, in document order. The list owns every pointer in it.
typedef std::vector<XMLObject*> XMLObjectPtrList;

class XMLObjectList : public XMLObject {
public:
    ~XMLObjectList() override;

    XMLObjectPtrList& Children() { return m_Items; }
    const XMLObjectPtrList& Children() const { return m_Items; }

    // Deletes the items, and empties the lists among the registered children.
    void DeleteChildren() override;
    bool IsCollection() const override;
    bool HasChildElements() const override;
    // The defaults of a list: its own attributes' defaults and no items.
    void SetToDefaults() override;
    void ToXML(wxString& text) const override;
    // The list's own element name; for a list without one, the items' name.
    bool ElementNameMatches(const wxString& name) const override;

    // The element name of the items. By default the element name of an
    // object that CreateChild makes.
    virtual wxString GetChildElementName() const;
    // Makes a new item with its defaults; null when none can be made.
    virtual XMLObject* CreateChild() const = 0;

protected:
    XMLObjectList(bool printDefaults, bool resetBeforeParse);

    // Items first, then the registered children.
    void PrintChildElements(wxString& text) const override;
    int ParseElement(const wxXmlNode& node) override;
    int ParseChildElement(const wxXmlNode& child) override;
    void CopyValuesFrom(const XMLObject& other) override;

private:
    void DeleteItems();
    int AddItem(const wxXmlNode& node);

    XMLObjectPtrList m_Items;
};

}  // namespace NorvCore
