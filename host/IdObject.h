// CIdObject and CIdNameObject: XML-mapped records identified by an integer
// "id" attribute (default 0), the second also named by a "name" attribute.
// Records of the configuration derive from them and add their own bindings.
//
// Thread safety: none of their own, as for XMLObject.
#pragma once

#include <wx/string.h>

#include "host/XMLObject.h"

namespace NorvCore {

class CIdObject : public XMLObject {
public:
    int GetId() const { return m_Id; }
    void SetId(int id) { m_Id = id; }

protected:
    // printDefaults as for XMLObject; a parse always starts from the defaults.
    explicit CIdObject(bool printDefaults);

    int m_Id = 0;
};

class CIdNameObject : public CIdObject {
public:
    const wxString& GetName() const { return m_Name; }
    void SetName(const wxString& name) { m_Name = name; }

protected:
    explicit CIdNameObject(bool printDefaults);

    wxString m_Name;
};

}  // namespace NorvCore
