// One-time set-up of the toolkit (wxWidgets base) for the process.
#pragma once

namespace NorvCore {

// Initialises the toolkit once per process and installs the operator log.
// Safe to call from every module's entry and from test programs; later calls
// do nothing.
void InitializeToolkit();

}  // namespace NorvCore
