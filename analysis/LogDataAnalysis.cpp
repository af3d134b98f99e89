// LogData: the analysis gate of the record path. Every record passes here,
// logged or not; the classification of probes and flows is added on top.
#include "log/LogData.h"

namespace VEXIL {

bool LogData::AnalyzeLogEntry(const std::string& /*line*/, const u64* /*firstTimeUsec*/,
                              DriverLogEntry* /*copy*/) {
    return true;
}

}  // namespace VEXIL
