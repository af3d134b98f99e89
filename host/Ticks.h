// SystemTickCount: the free-running 32-bit millisecond tick.
//
// It counts from a monotonic clock and wraps; intervals are unsigned 32-bit
// differences. Tests may switch to a manual clock that only moves when told.
// Thread safety: all functions may be called from any thread.
#pragma once

#include "host/Types.h"

namespace NorvCore {

u32 SystemTickCount();

// Switches to the manual clock, standing at ticks.
void SetManualTicks(u32 ticks);
// Moves the manual clock on (wrapping); switches to it first if needed, from
// the current real value.
void AdvanceManualTicks(u32 msec);
// Back to the monotonic clock.
void UseRealTicks();
bool ManualTicksActive();

}  // namespace NorvCore
