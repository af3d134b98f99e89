// Access to the driver-interface library beyond the norvi_* functions.
//
// The host core defines the norvi_* functions of host/norvi.h itself, as
// forwarders into libnorvi.so, which it opens on the first call of any of
// them (or of NorviSymbol). The library is looked for in this order: the path
// in the environment variable NORVI_LIBRARY when it is set, else libnorvi.so
// in the folder of the host core library, else libnorvi.so through the
// system's default search. It is loaded once per process and never unloaded.
//
// Thread safety: every function may be called from any thread.
#pragma once

namespace NorvCore {

// Address of the named symbol in the loaded libnorvi.so, or null when the
// library could not be loaded or lacks the symbol. This is how code outside
// the library reaches its other entry points (such as its test controls) in
// the same loaded copy that the norvi_* functions use.
void* NorviSymbol(const char* name);

}  // namespace NorvCore
