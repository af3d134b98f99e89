// Bounded buffers at their edges, hexadecimal and base64 texts, error texts,
// file modes and the event-detail formatter.
#include "host/TextHelpers.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <string>

#include "host/Trace.h"
#include "tests/TempFolder.h"

namespace {

std::string U(const wxString& text) {
    return std::string(text.utf8_str().data());
}

std::string Format(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    const wxString text = NorvCore::FormatWithNarrowArgs(format, args);
    va_end(args);
    return U(text);
}

TEST(BoundedTextTest, FitsCutsAndNeverWritesPastSize) {
    using Call = std::function<int(char*, size_t)>;
    const Call printAbc12 = [](char* b, size_t n) {
        return snprintf_safe(b, n, "%s%d", "abc", 12);
    };
    const Call cat123 = [](char* b, size_t n) { return snprintfcat(b, n, "%d", 123); };
    const Call catAbc = [](char* b, size_t n) { return snprintfcat(b, n, "%s", "abc"); };
    // The two copying helpers answer the target; -1 stands for that.
    const Call copyAbc = [](char* b, size_t n) { return strcpy_safe(b, n, "abc") == b ? -1 : -2; };
    const Call copyNull = [](char* b, size_t n) {
        return strcpy_safe(b, n, nullptr) == b ? -1 : -2;
    };
    const Call appendCd = [](char* b, size_t n) { return strcat_safe(b, n, "cd") == b ? -1 : -2; };
    const struct {
        const char* name;
        const Call& call;
        const char* before;  // null: no terminator anywhere in the buffer
        size_t size;
        const char* after;  // null: the buffer stays untouched
        int result;
    } cases[] = {
        {"printf fits", printAbc12, nullptr, 6, "abc12", 5},
        {"printf size 1", printAbc12, nullptr, 1, "", 0},
        {"printf size 0", printAbc12, nullptr, 0, nullptr, 0},
        {"cat fits", cat123, "ab", 6, "ab123", 5},
        {"cat one short", cat123, "ab", 5, "ab12", 4},
        {"cat already full", catAbc, "ab123", 6, "ab123", 5},
        {"cat size 0", catAbc, nullptr, 0, nullptr, 0},
        {"cat unterminated", catAbc, nullptr, 4, "###", 3},
        {"copy fits", copyAbc, nullptr, 4, "abc", -1},
        {"copy one short", copyAbc, nullptr, 3, "ab", -1},
        {"copy size 0", copyAbc, nullptr, 0, nullptr, -1},
        {"copy null", copyNull, nullptr, 8, "", -1},
        {"append fits", appendCd, "ab", 5, "abcd", -1},
        {"append one short", appendCd, "ab", 4, "abc", -1},
        {"append size 0", appendCd, nullptr, 0, nullptr, -1},
        {"append unterminated", appendCd, nullptr, 3, "##", -1},
    };
    for (const auto& c : cases) {
        char bytes[32];
        memset(bytes, '#', sizeof(bytes));
        if (c.before) {
            strcpy(bytes, c.before);
        }
        EXPECT_EQ(c.call(bytes, c.size), c.result) << c.name;
        if (c.after) {
            ASSERT_LT(strnlen(bytes, c.size), c.size) << c.name;
            EXPECT_STREQ(bytes, c.after) << c.name;
        }
        for (size_t i = c.after ? c.size : 0; i < sizeof(bytes); ++i) {
            ASSERT_EQ(bytes[i], '#') << c.name << " byte " << i;
        }
    }
    EXPECT_EQ(snprintf_safe(nullptr, 10, "%s", "abc"), 0);
}

TEST(TextTest, HexBase64AndErrorTexts) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    const wxString hex = NorvCore::toHexString(bytes, false);
    EXPECT_EQ(U(hex.Left(8)), "00010203");
    EXPECT_EQ(U(hex.Right(4)), "feff");
    EXPECT_EQ(NorvCore::fromHexString(hex), bytes);
    EXPECT_EQ(U(NorvCore::toHexString(std::string("\x00\xab\x10", 3), true)), "00:ab:10");
    EXPECT_EQ(NorvCore::fromHexString("de ad-be:e"), std::string("\xde\xad\xbe", 3));
    EXPECT_EQ(NorvCore::fromHexString("0A0bzz01"), std::string("\x0a\x0b", 2));

    EXPECT_EQ(U(NorvCore::toBase64String("", false)), "");
    EXPECT_EQ(U(NorvCore::toBase64String(std::string("\0\0\0\xff", 4), false)), "AAAA/w==");
    EXPECT_EQ(U(NorvCore::ReplaceBars("a|b||c")), "a!b!!c");

    // The oldest OpenSSL error, left in the queue.
    ERR_clear_error();
    EXPECT_EQ(U(NorvCore::OpenSSLError()), "");
    ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
    ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
    const std::string text = U(NorvCore::OpenSSLError());
    EXPECT_NE(text.find("no start line"), std::string::npos) << text;
    EXPECT_EQ(U(NorvCore::OpenSSLError()), text);
    ERR_clear_error();
}

TEST(SecureFileTest, FileGets0600AndAMissingPathAWarning) {
    TempFolder folder;
    const std::string file = folder.Path() + "/file";
    FILE* stream = fopen(file.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    fclose(stream);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    NorvCore::SecureFileOrDirectory(wxString::FromUTF8(file.c_str()), false);
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);

    NorvCore::TakeOperatorLogLines();
    NorvCore::SecureFileOrDirectory(wxString::FromUTF8((file + "-missing").c_str()), false);
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Warning: Can't restrict access to " + file + "-missing", 0), 0u);
}

TEST(FormatTest, NarrowArgumentsAsCallersPassThem) {
    EXPECT_EQ(Format(L"%.64s|%08x (%.128s)", "open", 0x2au, "denied"), "open|0000002a (denied)");
    EXPECT_EQ(Format(L"%.3s|%-4s|%4s|", "abcdef", "ab", "ab"), "abc|ab  |  ab|");
    EXPECT_EQ(Format(L"%s %ls", static_cast<const char*>(nullptr), L"wide"), "(null) wide");
    EXPECT_EQ(Format(L"%s", "gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");  // UTF-8 kept
    EXPECT_EQ(Format(L"%s", "\xff"), "\xc3\xbf");  // not UTF-8: taken as Latin-1
    // Precision never splits a UTF-8 sequence, nor reads past itself.
    EXPECT_EQ(Format(L"[%.2s]", "\xc3\xa9x"), "[\xc3\xa9]");
    EXPECT_EQ(Format(L"[%.1s]", "\xc3\xa9"), "[]");
    EXPECT_EQ(Format(L"[%.3s]", "a\xe2\x82\xac"), "[a]");
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(Format(L"%.3s", unterminated), "xyz");
    EXPECT_EQ(Format(L"%d %i %u %ld %lld %zu %hhd", -1, 2, 3u, -4L, 5LL, size_t{6}, 257),
              "-1 2 3 -4 5 6 1");
    EXPECT_EQ(Format(L"%X %#x %05d %.2f %c%%", 255u, 16u, 42, 3.14159, 'A'),
              "FF 0x10 00042 3.14 A%");
    EXPECT_EQ(Format(L"%*d|%-*d|%.*s|%*d|", 4, 1, 3, 2, 2, "abc", -3, 1), "   1|2  |ab|1  |");
    int ignored = 0;
    EXPECT_EQ(Format(L"a%nb%d", &ignored, 5), "ab5");
    EXPECT_EQ(ignored, 0);
    EXPECT_EQ(Format(L"%d %y %d", 1, 2, 3), "1 %y %d");
    EXPECT_EQ(Format(L"end %", 1), "end %");
    EXPECT_EQ(Format(L"\u00e9t\u00e9 %d", 1), "\xc3\xa9t\xc3\xa9 1");
}

}  // namespace
