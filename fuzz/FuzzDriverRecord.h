// The property that every record of the Linux driver interface's sources
// must have, checked by the harnesses of those sources: the trailing data
// block is exactly as long as data_len says, the packet block is the same
// bytes, and the header copies are copies of the packet's own headers.
#pragma once

#include "driver/linux/RecordSource.h"

namespace VEXIL {

// Aborts (a finding) when record is not consistent.
void FuzzCheckDriverRecord(const NORVI::SourceRecord& record);

}  // namespace VEXIL
