// The configuration document of CDom: stored as text under m_StoreLock and
// parsed outside the lock on each lookup, so that a slow parse never holds up
// the settings store.
#include <mutex>

#include <wx/arrstr.h>
#include <wx/log.h>
#include <wx/sstream.h>
#include <wx/xml/xml.h>

#include "host/Dom.h"
#include "host/Trace.h"
#include "host/XMLObject.h"

namespace NorvCore {

namespace {

const wchar_t* const kTraceCategory = L"XMLObject";

// Parses text into document; false when it is not well-formed XML.
bool LoadDocument(const wxString& text, wxXmlDocument& document) {
    // The parser reports its errors to the operator log; callers report the
    // refusal themselves.
    wxLogNull quiet;
    wxStringInputStream stream(text);
    return document.Load(stream) && document.GetRoot() != nullptr;
}

// The element at an absolute path "/A/B/C": A is the root, and each further
// step the first child element of that name. Null when the path is not
// absolute or leads nowhere; an empty step matches no element.
const wxXmlNode* FindElement(const wxXmlDocument& document, const wxString& path) {
    if (!path.StartsWith(wxS("/"))) {
        return nullptr;
    }
    const wxArrayString steps = wxSplit(path.Mid(1), wxS('/'), wxS('\0'));
    const wxXmlNode* node = document.GetRoot();
    if (steps.empty() || node->GetName() != steps[0]) {
        return nullptr;
    }
    for (size_t index = 1; index < steps.size() && node != nullptr; ++index) {
        node = node->GetChildren();
        while (node != nullptr &&
               (node->GetType() != wxXML_ELEMENT_NODE || node->GetName() != steps[index])) {
            node = node->GetNext();
        }
    }
    return node;
}

}  // namespace

bool CDom::SetConfigXml(const wxString& text) {
    wxXmlDocument document;
    if (!LoadDocument(text, document)) {
        wxLogWarning("The configuration document is not well-formed XML; the previous one is kept");
        return false;
    }
    CMutexLocker guard(m_StoreLock);
    m_ConfigXml = text;
    return true;
}

bool CDom::ConfigGetXml(const std::string& path, XMLObject& object) const {
    wxString text;
    {
        CMutexLocker guard(m_StoreLock);
        text = m_ConfigXml;
    }
    if (text.empty()) {
        NORV_TRACE(kTraceCategory, wxString::Format("%.128s: no configuration document", path));
        return false;
    }
    wxXmlDocument document;
    if (!LoadDocument(text, document)) {
        return false;
    }
    const wxXmlNode* node = FindElement(document, wxString::FromUTF8(path.c_str()));
    if (node == nullptr) {
        NORV_TRACE(kTraceCategory,
                   wxString::Format("%.128s: no such element in the configuration", path));
        return false;
    }
    const int result = object.FromXML(*node);
    if (result != XMLObject::ParseOk) {
        NORV_TRACE(kTraceCategory, wxString::Format("%.128s: element not accepted by <%s> (%d)",
                                                    path, object.GetElementName(), result));
        return false;
    }
    return true;
}

}  // namespace NorvCore
