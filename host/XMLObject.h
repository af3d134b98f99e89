// XMLObject: the base of records that map onto one XML element.
//
// A subclass binds its members to attribute names in its constructor
// (AddAttribute) and registers member objects that stand for child elements
// (AddChild); the base then parses, prints and copies the record. Printing
// writes the attributes in binding order, then the child elements in
// registration order, and is lossless: parsing the printed text gives the same
// bound values again. Unknown attributes and child elements are ignored unless
// a subclass rejects them through OnUnhandledAttribute/OnUnhandledChildElement.
//
// Thread safety: none of its own. A record belongs to the thread that made it,
// or to the lock of the object that holds it.
#pragma once

#include <variant>
#include <vector>

#include <wx/string.h>

class wxXmlNode;

namespace NorvCore {

class XMLObject {
public:
    // Results of FromXML.
    static constexpr int ParseOk = 0;
    static constexpr int ParseMalformed = 1;         // not well-formed XML
    static constexpr int ParseWrongElement = 2;      // the element is not this record's
    static constexpr int ParseMissingAttribute = 3;  // a required attribute is absent
    static constexpr int ParseRejected = 4;          // the record refused an attribute or child

    virtual ~XMLObject();
    // Bindings point into the object itself, so records are copied with
    // CopyFrom, never by the copy constructor.
    XMLObject(const XMLObject&) = delete;
    XMLObject& operator=(const XMLObject&) = delete;

    // Registers a member object that stands for a child element, matched by
    // its element name. The child is not owned and must live as long as this.
    virtual void AddChild(XMLObject* child);

    // The name of the record's element. The base has none: such an object
    // matches no element and prints nothing, so a concrete record overrides it.
    virtual wxString GetElementName() const;
    virtual bool HasChildElements() const;
    virtual bool IsCollection() const;
    // Puts every bound value back to its default, clears the parsed flag and
    // does the same for the children.
    virtual void SetToDefaults();
    // Appends the element, its attributes and its children to text.
    virtual void ToXML(wxString& text) const;
    // Empties the collections among the children (the base owns none itself).
    virtual void DeleteChildren();
    virtual bool ElementNameMatches(const wxString& name) const;

    // Parses text that holds one element of this record. context names the
    // source of the text in trace lines and may be null. Returns ParseOk or
    // one of the failure codes above. Text that is not XML, or not this
    // record's element, leaves the record untouched; a failure inside the
    // element leaves it partly filled, with the parsed flag false.
    int FromXML(const wxString& text, const char* context);
    // The same for an element already parsed, such as a child element or one
    // found in a larger document.
    int FromXML(const wxXmlNode& node);
    // True once a parse met the record's element and accepted it; cleared by
    // SetToDefaults and at the start of every parse.
    bool WasParsed() const { return m_WasParsed; }

    // Copies the bound values, the children and the parsed flag of other.
    // Records of the same class are copied member by member; others by
    // printing other and parsing the text, which fails unless the element
    // names agree (this one is then left as it was).
    XMLObject& CopyFrom(XMLObject& other);

protected:
    // printDefaults: print attributes that hold their default value too;
    // otherwise they are left out (parsing gives them back).
    // resetBeforeParse: a parse starts from the defaults; otherwise it
    // overlays the attributes it meets on the current values.
    XMLObject(bool printDefaults, bool resetBeforeParse);

    // Binds a member to an attribute; the member takes its default at once.
    // Defaults: false for a bool, value for an int, empty for a string. A
    // required attribute must be present for a parse to succeed, and is
    // always printed.
    void AddAttribute(const wchar_t* name, bool* field, bool required);
    void AddAttribute(const wchar_t* name, int* field, int value, bool required);
    void AddAttribute(const wchar_t* name, wxString* field, bool required);

    virtual void PrintAttributes(wxString& text) const;
    virtual void PrintChildElements(wxString& text) const;
    // Handles the element once its name has matched.
    virtual int ParseElement(const wxXmlNode& node);
    // Handles one child element of the record's element.
    virtual int ParseChildElement(const wxXmlNode& child);
    // Copies from a record of the same class, whose layout is known to match.
    virtual void CopyValuesFrom(const XMLObject& other);
    // Called for an attribute with no binding; true ignores it, false fails
    // the parse.
    virtual bool OnUnhandledAttribute(const wxString& name, const wxString& value);
    // Called for a child element that no child object takes; true ignores
    // it, false fails the parse.
    virtual bool OnUnhandledChildElement(const wxXmlNode& child);

    void SetParsed(bool parsed) { m_WasParsed = parsed; }

private:
    struct Attribute {
        wxString name;
        std::variant<bool*, int*, wxString*> field;
        int defaultValue;
        bool required;
    };

    bool IsDefault(const Attribute& attribute) const;
    bool SameLayout(const XMLObject& other) const;
    void SetValue(const Attribute& attribute, const wxString& value) const;

    std::vector<Attribute> m_Attributes;
    std::vector<XMLObject*> m_Children;
    bool m_PrintDefaults;
    bool m_ResetBeforeParse;
    bool m_WasParsed = false;
};

}  // namespace NorvCore
