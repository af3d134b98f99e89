#include "log/LineScan.h"

#include <cstdint>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VEXIL_SCAN_AVX2 1
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace VEXIL {

namespace {

bool Printable(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte <= 0x7E;
}

size_t FindUnprintableFrom(const char* text, size_t from, size_t length) {
#if defined(__SSE2__)
    // Moved by 0x60, the printable bytes, and only they, fall on -128 to -34
    // as signed bytes: one addition and one compare test 16 bytes.
    const __m128i shift = _mm_set1_epi8(0x60);
    const __m128i limit = _mm_set1_epi8(-33);
    for (; from + 16 <= length; from += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + from));
        const unsigned printable =
            unsigned(_mm_movemask_epi8(_mm_cmplt_epi8(_mm_add_epi8(bytes, shift), limit)));
        if (printable != 0xFFFFu) {
            return from + size_t(__builtin_ctz(~printable));
        }
    }
#endif
    while (from < length && Printable(text[from])) {
        ++from;
    }
    return from;
}

#if defined(VEXIL_SCAN_AVX2)
// The same test, 64 bytes a step.
__attribute__((target("avx2"))) size_t FindUnprintableAvx2(const char* text, size_t length) {
    const __m256i shift = _mm256_set1_epi8(0x60);
    const __m256i limit = _mm256_set1_epi8(-33);
    size_t i = 0;
    for (; i + 64 <= length; i += 64) {
        const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text + i));
        const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(text + i + 32));
        const u64 printable =
            u64(u32(_mm256_movemask_epi8(_mm256_cmpgt_epi8(limit, _mm256_add_epi8(low, shift))))) |
            u64(u32(_mm256_movemask_epi8(_mm256_cmpgt_epi8(limit, _mm256_add_epi8(high, shift)))))
                << 32;
        if (printable != ~u64(0)) {
            return i + size_t(__builtin_ctzll(~printable));
        }
    }
    return FindUnprintableFrom(text, i, length);
}
#endif

#if defined(__SSE2__)
// Bit i set for each comma among the 32 bytes at text.
inline u32 CommaMask32(const char* text) {
    const __m128i comma = _mm_set1_epi8(',');
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + 16));
    return u32(_mm_movemask_epi8(_mm_cmpeq_epi8(low, comma))) |
           u32(_mm_movemask_epi8(_mm_cmpeq_epi8(high, comma))) << 16;
}
#endif

// The position of the third comma in text[0, length), or length when there
// are fewer than three.
size_t FindThirdComma(const char* text, size_t length) {
    unsigned found = 0;
    size_t i = 0;
#if defined(__SSE2__)
    const __m128i comma = _mm_set1_epi8(',');
    for (; i + 16 <= length; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
        for (unsigned mask = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, comma))); mask != 0;
             mask &= mask - 1) {
            if (++found == 3) {
                return i + size_t(__builtin_ctz(mask));
            }
        }
    }
#endif
    for (; i < length; ++i) {
        if (text[i] == ',' && ++found == 3) {
            return i;
        }
    }
    return length;
}

// The position of the last comma in text[0, length), or length when there is
// none.
size_t FindLastComma(const char* text, size_t length) {
    size_t end = length;
#if defined(__SSE2__)
    const __m128i comma = _mm_set1_epi8(',');
    for (; end >= 16; end -= 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + end - 16));
        const unsigned mask = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, comma)));
        if (mask != 0) {
            return end - 16 + size_t(31 - __builtin_clz(mask));
        }
    }
#endif
    while (end > 0) {
        if (text[--end] == ',') {
            return end;
        }
    }
    return length;
}

// Eight decimal digits at text as their value, taken as one 64-bit word;
// false when any of the eight bytes is no digit.
inline bool EightDigits(const char* text, u64& value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    u64 word;
    std::memcpy(&word, text, sizeof word);
    // Each byte is a digit when its high half is 3 and stays 3 with 6 added.
    constexpr u64 kHigh = 0xF0F0F0F0F0F0F0F0ull;
    if ((((word & kHigh) | (((word + 0x0606060606060606ull) & kHigh) >> 4))) !=
        0x3333333333333333ull) {
        return false;
    }
    // Pairs of digits, then fours, then the eight, the first byte the most
    // significant digit.
    u64 digits = word - 0x3030303030303030ull;
    digits = digits * 10 + (digits >> 8);
    value = (((digits & 0x000000FF000000FFull) * (100 + (1000000ull << 32))) +
             (((digits >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32)))) >>
            32;
    return true;
#else
    (void)text;
    (void)value;
    return false;
#endif
}

// A decimal number read as strtoll reads it (leading white space, a sign,
// digits, saturated at the limits), from text[from] up to text[length].
i64 ReadDecimal(const char* text, size_t from, size_t length) {
    // The usual case, a time of sixteen digits and nothing before them.
    u64 high, low;
    if (from + 16 <= length && EightDigits(text + from, high) &&
        EightDigits(text + from + 8, low) &&
        (from + 16 == length || text[from + 16] < '0' || text[from + 16] > '9')) {
        return i64(high * 100000000 + low);
    }
    size_t i = from;
    while (i < length && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
        ++i;
    }
    bool negative = false;
    if (i < length && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    u64 magnitude = 0;
    const u64 limit = negative ? u64(INT64_MAX) + 1 : u64(INT64_MAX);
    bool saturated = false;
    // Below this no digit can carry the magnitude past the limit.
    constexpr u64 kSafe = u64(INT64_MAX) / 10 - 1;
    // Eight digits a step while eight more cannot carry it past the limit;
    // the times the read-back reads have sixteen.
    constexpr u64 kEightSafe = (u64(INT64_MAX) - 99999999) / 100000000;
    for (u64 eight; magnitude <= kEightSafe && i + 8 <= length && EightDigits(text + i, eight);
         i += 8) {
        magnitude = magnitude * 100000000 + eight;
    }
    for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i) {
        const u64 digit = u64(text[i] - '0');
        if (magnitude >= kSafe && (saturated || magnitude > (limit - digit) / 10)) {
            saturated = true;
            continue;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (saturated) {
        magnitude = limit;
    }
    return negative ? i64(0 - magnitude) : i64(magnitude);
}

}  // namespace

size_t FindUnprintable(const char* text, size_t length) {
#if defined(VEXIL_SCAN_AVX2)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2) {
        return FindUnprintableAvx2(text, length);
    }
#endif
    return FindUnprintableFrom(text, 0, length);
}

i64 LineFirstTime(const char* line, size_t scanned, size_t length, char roleCharacter) {
    // The third comma ends the role column; the last begins the time. In a
    // line of the usual form both stand within 32 bytes of the ends.
    size_t thirdComma = scanned;
#if defined(__SSE2__)
    if (scanned >= 32) {
        u32 commas = CommaMask32(line);
        commas &= commas - 1;
        commas &= commas - 1;
        if (commas != 0) {
            thirdComma = size_t(__builtin_ctz(commas));
        }
    }
#endif
    if (thirdComma == scanned) {
        thirdComma = FindThirdComma(line, scanned);
    }
    if (thirdComma == scanned || thirdComma == 0 || line[thirdComma - 1] != roleCharacter) {
        return 0;
    }
    size_t lastComma = scanned;
#if defined(__SSE2__)
    if (scanned - thirdComma >= 32) {
        const u32 commas = CommaMask32(line + scanned - 32);
        if (commas != 0) {
            lastComma = scanned - 32 + size_t(31 - __builtin_clz(commas));
        }
    }
#endif
    if (lastComma == scanned) {
        lastComma = thirdComma + FindLastComma(line + thirdComma, scanned - thirdComma);
    }
    return ReadDecimal(line, lastComma + 2, length);
}

}  // namespace VEXIL
