#include "fuzz/FuzzSupport.h"

#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include <lua.hpp>

#include "host/Toolkit.h"
#include "host/Trace.h"

namespace VEXIL {

namespace {

void AbortOnAssertion(const char* text) {
    fprintf(stderr, "fuzz: assertion failed: %s\n", text);
    abort();
}

void RemoveFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(FuzzFolder(), ignored);
}

}  // namespace

void FuzzInitialize() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    NorvCore::InitializeToolkit();
    // VEXIL_FUZZ_VERBOSE keeps the operator log on standard error, to see
    // what a finding did.
    if (getenv("VEXIL_FUZZ_VERBOSE") == nullptr) {
        NorvCore::SetOperatorLogEcho(nullptr);
    }
    NorvCore::SetAssertionHook(AbortOnAssertion);
}

NorvCore::CDom& FuzzDom() {
    // Never destroyed: static objects of the toolkit may go first at exit.
    static NorvCore::CDom* const dom = new NorvCore::CDom(":memory:");
    return *dom;
}

lua_State* FuzzLua() {
    static lua_State* const L = [] {
        lua_State* state = luaL_newstate();
        luaL_openlibs(state);
        return state;
    }();
    return L;
}

int FuzzPushTable(const char* chunk) {
    lua_State* L = FuzzLua();
    if (luaL_dostring(L, chunk) != LUA_OK) {
        fprintf(stderr, "fuzz: bad chunk: %s\n", lua_tostring(L, -1));
        abort();
    }
    return lua_gettop(L);
}

const std::string& FuzzFolder() {
    static const std::string folder = [] {
        char pattern[] = "/tmp/vexil-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            perror("fuzz: mkdtemp");
            abort();
        }
        return std::string(pattern);
    }();
    static const bool registered = [] { return atexit(RemoveFolder) == 0; }();
    (void)registered;
    return folder;
}

void FuzzDropLogLines() {
    NorvCore::TakeOperatorLogLines();
    NorvCore::TakeTraceLines();
}

void FuzzCheck(bool condition, const char* message, const std::string& subject) {
    if (!condition) {
        fprintf(stderr, "fuzz: %s: [%s]\n", message, subject.c_str());
        abort();
    }
}

bool FuzzPrintable(const std::string& text) {
    for (const char c : text) {
        if (c < ' ' || c > '~') {
            return false;
        }
    }
    return true;
}

u8 CFuzzReader::Byte() {
    return m_Offset < m_Size ? m_Data[m_Offset++] : 0;
}

u16 CFuzzReader::Short() {
    const u16 low = Byte();
    return static_cast<u16>(low | (Byte() << 8));
}

u64 CFuzzReader::Long() {
    u64 value = 0;
    for (int i = 0; i < 8; ++i) {
        value |= static_cast<u64>(Byte()) << (8 * i);
    }
    return value;
}

std::string CFuzzReader::Bytes(size_t count) {
    const size_t taken = count < Left() ? count : Left();
    std::string bytes(reinterpret_cast<const char*>(m_Data + m_Offset), taken);
    m_Offset += taken;
    return bytes;
}

std::string CFuzzReader::Rest() {
    return Bytes(Left());
}

}  // namespace VEXIL
