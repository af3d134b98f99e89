// The words of a record's action and reason codes, as syslog messages show
// them. Log file lines carry only the numbers.
//
// Every word goes through the toolkit's translation lookup with no domain:
// the English text below is also the catalogue key, and without a catalogue
// it comes back as it stands. Each function returns a new string in UTF-8,
// never fails, and holds no state of its own; the lookup itself is the
// toolkit's.
#pragma once

#include <string>

#include "host/Types.h"

namespace VEXIL {

// Action of a packet record, or the action of the rule that matched it:
// 0 "Log" to 4 "Bypass"; any other value as its decimal number.
std::string PacketActionText(u32 action);
// Reason of a packet record, 100 to 152; any other code by "%#x".
std::string PacketReasonText(i32 reason);
// Action of a payload record. Bit 7 is the detect-only mark and puts
// "Detect Only: " before the word (or the number) of the other bits.
std::string PayloadActionText(i32 action);
// Reason of a payload record; a code without a word gives "Error: " and
// the number.
std::string PayloadReasonText(i32 reason);

}  // namespace VEXIL
