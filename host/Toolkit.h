// One-time set-up of the toolkit (wxWidgets base) for the process.
#pragma once

namespace NorvCore {

// Initialises the toolkit once per process and installs the operator log.
// Safe to call from every module's entry and from test programs; later calls
// do nothing.
void InitializeToolkit();

// Called with the text of every failed assertion, after its operator log
// line; the work goes on when it returns. Programs that must see assertions
// (fuzzing harnesses, tests) install one; null removes it. Any thread may
// fail an assertion, so the hook must be safe to call from any thread.
typedef void (*AssertionHook)(const char* text);
void SetAssertionHook(AssertionHook hook);

}  // namespace NorvCore
