#include "config/TcpFlagList.h"

#include <wx/log.h>
#include <wx/tokenzr.h>

namespace VEXIL {

std::set<u8> ParseTcpFlagList(const std::string& text) {
    std::set<u8> flags;
    wxStringTokenizer tokens(wxString::FromUTF8(text.data(), text.size()), ",; \t", wxTOKEN_STRTOK);
    while (tokens.HasMoreTokens()) {
        long value = 0;
        // Base 0: 0x12, 022 and 18 are the same flag byte.
        if (!tokens.GetNextToken().ToLong(&value, 0)) {
            continue;
        }
        // long has 64 bits here: a value is tested as it stands, so that one
        // beyond 32 bits cannot wrap into a flag byte.
        if (value < 0 || value > 255) {
            wxLogWarning("IgnoreTcpFlags value %ld is out of range - ignoring it.", value);
            continue;
        }
        flags.insert(u8(value));
    }
    return flags;
}

}  // namespace VEXIL
