// The list of TCP flag bytes that the stealth-probe analysis ignores, as the
// setting norvp.vexil.analysis.IgnoreTcpFlags gives it.
#pragma once

#include <set>
#include <string>

#include "host/Types.h"

namespace VEXIL {

// The set of flag bytes from the setting's text: tokens split at runs of
// commas, semicolons, blanks and tabs, each a number in C notation (0x12, 022
// and 18 are one byte). A token that is no number is skipped; one outside 0
// to 255 is skipped with an operator log warning.
std::set<u8> ParseTcpFlagList(const std::string& text);

}  // namespace VEXIL
