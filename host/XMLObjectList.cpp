#include "host/XMLObjectList.h"

#include <memory>

#include <wx/xml/xml.h>

namespace NorvCore {

XMLObjectList::XMLObjectList(bool printDefaults, bool resetBeforeParse)
    : XMLObject(printDefaults, resetBeforeParse) {}

XMLObjectList::~XMLObjectList() {
    DeleteItems();
}

void XMLObjectList::DeleteItems() {
    for (XMLObject* item : m_Items) {
        delete item;
    }
    m_Items.clear();
}

void XMLObjectList::DeleteChildren() {
    DeleteItems();
    XMLObject::DeleteChildren();
}

bool XMLObjectList::IsCollection() const {
    return true;
}

bool XMLObjectList::HasChildElements() const {
    return !m_Items.empty() || XMLObject::HasChildElements();
}

void XMLObjectList::SetToDefaults() {
    DeleteItems();
    XMLObject::SetToDefaults();
}

void XMLObjectList::ToXML(wxString& text) const {
    if (GetElementName().empty()) {
        for (const XMLObject* item : m_Items) {
            item->ToXML(text);
        }
        return;
    }
    XMLObject::ToXML(text);
}

void XMLObjectList::PrintChildElements(wxString& text) const {
    for (const XMLObject* item : m_Items) {
        item->ToXML(text);
    }
    XMLObject::PrintChildElements(text);
}

bool XMLObjectList::ElementNameMatches(const wxString& name) const {
    const wxString own = GetElementName();
    if (!own.empty()) {
        return name == own;
    }
    const wxString itemName = GetChildElementName();
    return !itemName.empty() && name == itemName;
}

wxString XMLObjectList::GetChildElementName() const {
    const std::unique_ptr<XMLObject> probe(CreateChild());
    return probe != nullptr ? probe->GetElementName() : wxString();
}

int XMLObjectList::AddItem(const wxXmlNode& node) {
    std::unique_ptr<XMLObject> item(CreateChild());
    if (item == nullptr) {
        return ParseRejected;
    }
    const int result = item->FromXML(node);
    if (result == ParseOk) {
        m_Items.push_back(item.release());
    }
    return result;
}

int XMLObjectList::ParseElement(const wxXmlNode& node) {
    if (!GetElementName().empty()) {
        return XMLObject::ParseElement(node);
    }
    // A list without an element of its own meets its items one at a time,
    // each through the record that holds it, whose parse from the defaults
    // has emptied the list first.
    const int result = AddItem(node);
    SetParsed(result == ParseOk);
    return result;
}

int XMLObjectList::ParseChildElement(const wxXmlNode& child) {
    if (child.GetName() == GetChildElementName()) {
        return AddItem(child);
    }
    return XMLObject::ParseChildElement(child);
}

void XMLObjectList::CopyValuesFrom(const XMLObject& other) {
    DeleteItems();
    XMLObject::CopyValuesFrom(other);
    for (XMLObject* from : static_cast<const XMLObjectList&>(other).m_Items) {
        std::unique_ptr<XMLObject> item(CreateChild());
        if (item != nullptr) {
            item->CopyFrom(*from);
            m_Items.push_back(item.release());
        }
    }
}

}  // namespace NorvCore
