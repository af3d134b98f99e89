// What every fuzzing harness shares: the process set-up, the one host store
// of the run, an interpreter with configuration tables, a scratch folder, a
// reader of the input bytes, and the property checks.
//
// A harness is single-threaded; everything here belongs to the thread that
// runs LLVMFuzzerTestOneInput. A failed property or assertion aborts, which
// libFuzzer reports as a finding with the input that caused it.
#pragma once

#include <cstddef>
#include <string>

#include "host/Dom.h"
#include "host/Types.h"

struct lua_State;

namespace VEXIL {

// Sets up the toolkit as the agent does, keeps the operator log off standard
// error unless VEXIL_FUZZ_VERBOSE is set (its lines are still kept, and
// dropped by FuzzDropLogLines) and makes
// every failed assertion a finding. Idempotent; every harness calls it first.
void FuzzInitialize();

// The run's host store, in memory. Agent events and host services reach "the
// newest live store": one store lives for the whole run, so that they always
// reach this one.
NorvCore::CDom& FuzzDom();

// The harness's interpreter. FuzzPushTable runs chunk (which returns one
// value) and leaves its result on the stack; the position is returned.
lua_State* FuzzLua();
int FuzzPushTable(const char* chunk);

// An empty scratch folder, made once per run and removed at exit.
const std::string& FuzzFolder();

// Forgets the operator log lines and trace lines kept so far.
void FuzzDropLogLines();

// Aborts with message when condition is false.
void FuzzCheck(bool condition, const char* message, const std::string& subject);

// Whether every byte is printable ASCII (blank to tilde).
bool FuzzPrintable(const std::string& text);

// Reads the input front to back; past the end every read gives zeros or
// nothing, so a harness never needs to test the length itself.
class CFuzzReader {
public:
    CFuzzReader(const u8* data, size_t size) : m_Data(data), m_Size(size) {}

    u8 Byte();
    u16 Short();  // little-endian
    u64 Long();   // little-endian
    // Up to count bytes (fewer at the end).
    std::string Bytes(size_t count);
    // Everything not read yet.
    std::string Rest();
    size_t Left() const { return m_Size - m_Offset; }

private:
    const u8* m_Data;
    size_t m_Size;
    size_t m_Offset = 0;
};

}  // namespace VEXIL
