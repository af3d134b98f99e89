#include "host/XMLObject.h"

#include <climits>
#include <typeinfo>

#include <wx/log.h>
#include <wx/sstream.h>
#include <wx/xml/xml.h>

#include "host/Trace.h"

namespace NorvCore {

namespace {

const wchar_t* const kTraceCategory = L"XMLObject";

// Whether the character may stand in an XML 1.0 document at all.
bool IsXmlChar(wxUint32 c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// Escapes text for an attribute value in double quotes. Tab, line feed and
// carriage return are written as character references, since a parser turns
// them into blanks otherwise. Characters that XML cannot carry are left out.
wxString EscapeAttribute(const wxString& text) {
    wxString escaped;
    escaped.reserve(text.length());
    for (wxString::const_iterator it = text.begin(); it != text.end(); ++it) {
        const wxUniChar c = *it;
        switch (c.GetValue()) {
            case '&':
                escaped += wxS("&amp;");
                break;
            case '<':
                escaped += wxS("&lt;");
                break;
            case '>':
                escaped += wxS("&gt;");
                break;
            case '"':
                escaped += wxS("&quot;");
                break;
            case '\'':
                escaped += wxS("&apos;");
                break;
            case '\t':
                escaped += wxS("&#9;");
                break;
            case '\n':
                escaped += wxS("&#10;");
                break;
            case '\r':
                escaped += wxS("&#13;");
                break;
            default:
                if (IsXmlChar(c.GetValue())) {
                    escaped += c;
                }
                break;
        }
    }
    return escaped;
}

}  // namespace

XMLObject::XMLObject(bool printDefaults, bool resetBeforeParse)
    : m_PrintDefaults(printDefaults), m_ResetBeforeParse(resetBeforeParse) {}

XMLObject::~XMLObject() = default;

void XMLObject::AddAttribute(const wchar_t* name, bool* field, bool required) {
    *field = false;
    m_Attributes.push_back(Attribute{name, field, 0, required});
}

void XMLObject::AddAttribute(const wchar_t* name, int* field, int value, bool required) {
    *field = value;
    m_Attributes.push_back(Attribute{name, field, value, required});
}

void XMLObject::AddAttribute(const wchar_t* name, wxString* field, bool required) {
    field->clear();
    m_Attributes.push_back(Attribute{name, field, 0, required});
}

void XMLObject::AddChild(XMLObject* child) {
    if (child != nullptr && child != this) {
        m_Children.push_back(child);
    }
}

wxString XMLObject::GetElementName() const {
    return wxString();
}

bool XMLObject::HasChildElements() const {
    return !m_Children.empty();
}

bool XMLObject::IsCollection() const {
    return false;
}

void XMLObject::SetToDefaults() {
    for (const Attribute& attribute : m_Attributes) {
        if (bool* const* flag = std::get_if<bool*>(&attribute.field)) {
            **flag = false;
        } else if (int* const* number = std::get_if<int*>(&attribute.field)) {
            **number = attribute.defaultValue;
        } else {
            std::get<wxString*>(attribute.field)->clear();
        }
    }
    m_WasParsed = false;
    for (XMLObject* child : m_Children) {
        child->SetToDefaults();
    }
}

void XMLObject::DeleteChildren() {
    for (XMLObject* child : m_Children) {
        child->DeleteChildren();
    }
}

bool XMLObject::ElementNameMatches(const wxString& name) const {
    const wxString own = GetElementName();
    return !own.empty() && name == own;
}

void XMLObject::ToXML(wxString& text) const {
    const wxString name = GetElementName();
    if (name.empty()) {
        return;
    }
    text << wxS('<') << name;
    PrintAttributes(text);
    if (HasChildElements()) {
        text << wxS('>');
        PrintChildElements(text);
        text << wxS("</") << name << wxS('>');
    } else {
        text << wxS("/>");
    }
}

bool XMLObject::IsDefault(const Attribute& attribute) const {
    if (bool* const* flag = std::get_if<bool*>(&attribute.field)) {
        return !**flag;
    }
    if (int* const* number = std::get_if<int*>(&attribute.field)) {
        return **number == attribute.defaultValue;
    }
    return std::get<wxString*>(attribute.field)->empty();
}

void XMLObject::PrintAttributes(wxString& text) const {
    for (const Attribute& attribute : m_Attributes) {
        if (!m_PrintDefaults && !attribute.required && IsDefault(attribute)) {
            continue;
        }
        text << wxS(' ') << attribute.name << wxS("=\"");
        if (bool* const* flag = std::get_if<bool*>(&attribute.field)) {
            text << (**flag ? wxS("true") : wxS("false"));
        } else if (int* const* number = std::get_if<int*>(&attribute.field)) {
            text << **number;
        } else {
            text << EscapeAttribute(*std::get<wxString*>(attribute.field));
        }
        text << wxS('"');
    }
}

void XMLObject::PrintChildElements(wxString& text) const {
    for (const XMLObject* child : m_Children) {
        child->ToXML(text);
    }
}

int XMLObject::FromXML(const wxString& text, const char* context) {
    wxXmlDocument document;
    bool loaded;
    {
        // The parser reports its errors to the operator log; a bad record is
        // the caller's business, so the reason goes to the trace instead.
        wxLogNull quiet;
        wxStringInputStream stream(text);
        loaded = document.Load(stream) && document.GetRoot() != nullptr;
    }
    if (!loaded) {
        NORV_TRACE(kTraceCategory,
                   wxString::Format("%.64s: text for <%s> is not well-formed XML",
                                    context != nullptr ? context : "XML", GetElementName()));
        return ParseMalformed;
    }
    const int result = FromXML(*document.GetRoot());
    if (result != ParseOk) {
        NORV_TRACE(kTraceCategory,
                   wxString::Format("%.64s: <%.64s> not accepted for <%s> (%d)",
                                    context != nullptr ? context : "XML",
                                    document.GetRoot()->GetName(), GetElementName(), result));
    }
    return result;
}

int XMLObject::FromXML(const wxXmlNode& node) {
    if (node.GetType() != wxXML_ELEMENT_NODE || !ElementNameMatches(node.GetName())) {
        return ParseWrongElement;
    }
    return ParseElement(node);
}

void XMLObject::SetValue(const Attribute& attribute, const wxString& value) const {
    if (bool* const* flag = std::get_if<bool*>(&attribute.field)) {
        const wxString word = wxString(value).Trim(true).Trim(false).Lower();
        if (word == wxS("true") || word == wxS("1")) {
            **flag = true;
        } else if (word == wxS("false") || word == wxS("0")) {
            **flag = false;
        } else {
            NORV_TRACE(kTraceCategory, wxString::Format("<%s %s=\"%.32s\">: not a boolean, kept",
                                                        GetElementName(), attribute.name, value));
        }
    } else if (int* const* number = std::get_if<int*>(&attribute.field)) {
        long parsed = 0;
        if (wxString(value).Trim(true).Trim(false).ToLong(&parsed, 10) && parsed >= INT_MIN &&
            parsed <= INT_MAX) {
            **number = static_cast<int>(parsed);
        } else {
            NORV_TRACE(kTraceCategory, wxString::Format("<%s %s=\"%.32s\">: not an integer, kept",
                                                        GetElementName(), attribute.name, value));
        }
    } else {
        *std::get<wxString*>(attribute.field) = value;
    }
}

int XMLObject::ParseElement(const wxXmlNode& node) {
    if (m_ResetBeforeParse) {
        SetToDefaults();
    }
    m_WasParsed = false;
    std::vector<bool> seen(m_Attributes.size(), false);
    for (const wxXmlAttribute* found = node.GetAttributes(); found != nullptr;
         found = found->GetNext()) {
        size_t index = 0;
        while (index < m_Attributes.size() && m_Attributes[index].name != found->GetName()) {
            ++index;
        }
        if (index < m_Attributes.size()) {
            SetValue(m_Attributes[index], found->GetValue());
            seen[index] = true;
        } else if (!OnUnhandledAttribute(found->GetName(), found->GetValue())) {
            return ParseRejected;
        }
    }
    for (size_t index = 0; index < m_Attributes.size(); ++index) {
        if (m_Attributes[index].required && !seen[index]) {
            NORV_TRACE(kTraceCategory,
                       wxString::Format("<%s>: required attribute %s is missing", GetElementName(),
                                        m_Attributes[index].name));
            return ParseMissingAttribute;
        }
    }
    for (const wxXmlNode* child = node.GetChildren(); child != nullptr; child = child->GetNext()) {
        if (child->GetType() != wxXML_ELEMENT_NODE) {
            continue;
        }
        const int result = ParseChildElement(*child);
        if (result != ParseOk) {
            return result;
        }
    }
    m_WasParsed = true;
    return ParseOk;
}

int XMLObject::ParseChildElement(const wxXmlNode& child) {
    for (XMLObject* object : m_Children) {
        if (object->ElementNameMatches(child.GetName())) {
            return object->ParseElement(child);
        }
    }
    return OnUnhandledChildElement(child) ? ParseOk : ParseRejected;
}

bool XMLObject::OnUnhandledAttribute(const wxString&, const wxString&) {
    return true;
}

bool XMLObject::OnUnhandledChildElement(const wxXmlNode&) {
    return true;
}

bool XMLObject::SameLayout(const XMLObject& other) const {
    if (m_Attributes.size() != other.m_Attributes.size() ||
        m_Children.size() != other.m_Children.size()) {
        return false;
    }
    for (size_t index = 0; index < m_Attributes.size(); ++index) {
        if (m_Attributes[index].name != other.m_Attributes[index].name ||
            m_Attributes[index].field.index() != other.m_Attributes[index].field.index()) {
            return false;
        }
    }
    return true;
}

XMLObject& XMLObject::CopyFrom(XMLObject& other) {
    if (&other == this) {
        return *this;
    }
    if (typeid(*this) == typeid(other) && SameLayout(other)) {
        CopyValuesFrom(other);
        return *this;
    }
    wxString text;
    other.ToXML(text);
    if (FromXML(text, "CopyFrom") == ParseOk) {
        m_WasParsed = other.m_WasParsed;
    }
    return *this;
}

void XMLObject::CopyValuesFrom(const XMLObject& other) {
    for (size_t index = 0; index < m_Attributes.size(); ++index) {
        const auto& from = other.m_Attributes[index].field;
        const auto& to = m_Attributes[index].field;
        if (bool* const* flag = std::get_if<bool*>(&to)) {
            **flag = *std::get<bool*>(from);
        } else if (int* const* number = std::get_if<int*>(&to)) {
            **number = *std::get<int*>(from);
        } else {
            *std::get<wxString*>(to) = *std::get<wxString*>(from);
        }
    }
    for (size_t index = 0; index < m_Children.size(); ++index) {
        m_Children[index]->CopyFrom(*other.m_Children[index]);
    }
    m_WasParsed = other.m_WasParsed;
}

}  // namespace NorvCore
