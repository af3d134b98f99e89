// What the SSL benchmarks share: the stand-in driver's controls, reached
// through the host core's loader, and whole files read into memory.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "host/NorviLoader.h"

template <typename Function>
Function Control(const char* name) {
    return reinterpret_cast<Function>(NorvCore::NorviSymbol(name));
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}
