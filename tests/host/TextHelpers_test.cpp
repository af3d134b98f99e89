// Bounded buffers at their edges, hexadecimal and base64 texts, error texts,
// file modes and the event-detail formatter.
#include "host/TextHelpers.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/Trace.h"

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

// A buffer with a guard byte after size bytes, filled with a marker.
struct GuardedBuffer {
    char bytes[32];
    explicit GuardedBuffer(char fill = '#') { memset(bytes, fill, sizeof(bytes)); }
};

TEST(BoundedTextTest, SnprintfSafeFitsCutsAndNeverWritesPastSize) {
    GuardedBuffer b;
    EXPECT_EQ(snprintf_safe(b.bytes, 6, "%s%d", "abc", 12), 5);  // exact fit
    EXPECT_STREQ(b.bytes, "abc12");
    EXPECT_EQ(b.bytes[6], '#');

    GuardedBuffer c;
    EXPECT_EQ(snprintf_safe(c.bytes, 5, "%s%d", "abc", 12), 4);  // one short
    EXPECT_STREQ(c.bytes, "abc1");
    EXPECT_EQ(c.bytes[5], '#');

    GuardedBuffer d;
    EXPECT_EQ(snprintf_safe(d.bytes, 1, "%s", "abc"), 0);
    EXPECT_EQ(d.bytes[0], '\0');
    EXPECT_EQ(d.bytes[1], '#');

    GuardedBuffer e;
    EXPECT_EQ(snprintf_safe(e.bytes, 0, "%s", "abc"), 0);
    EXPECT_EQ(e.bytes[0], '#');
    EXPECT_EQ(snprintf_safe(nullptr, 10, "%s", "abc"), 0);
}

TEST(BoundedTextTest, SnprintfcatAppendsWithinSize) {
    GuardedBuffer b;
    strcpy(b.bytes, "ab");
    EXPECT_EQ(snprintfcat(b.bytes, 6, "%d", 123), 5);  // exact fit
    EXPECT_STREQ(b.bytes, "ab123");
    EXPECT_EQ(snprintfcat(b.bytes, 6, "%s", "x"), 5);  // full already
    EXPECT_STREQ(b.bytes, "ab123");

    GuardedBuffer c;
    strcpy(c.bytes, "ab");
    EXPECT_EQ(snprintfcat(c.bytes, 5, "%d", 123), 4);  // one short
    EXPECT_STREQ(c.bytes, "ab12");
    EXPECT_EQ(c.bytes[5], '#');

    GuardedBuffer d;
    d.bytes[0] = '\0';
    EXPECT_EQ(snprintfcat(d.bytes, 1, "%s", "abc"), 0);
    EXPECT_EQ(d.bytes[0], '\0');

    GuardedBuffer e;
    EXPECT_EQ(snprintfcat(e.bytes, 0, "%s", "abc"), 0);
    EXPECT_EQ(e.bytes[0], '#');

    // A buffer without a terminator inside size is cut, never overrun.
    GuardedBuffer f('z');
    EXPECT_EQ(snprintfcat(f.bytes, 4, "%s", "abc"), 3);
    EXPECT_EQ(std::string(f.bytes, 4), std::string("zzz\0", 4));
    EXPECT_EQ(f.bytes[4], 'z');
}

TEST(BoundedTextTest, StrcpySafeAtItsEdges) {
    GuardedBuffer b;
    EXPECT_EQ(strcpy_safe(b.bytes, 4, "abc"), b.bytes);  // exact fit
    EXPECT_STREQ(b.bytes, "abc");
    EXPECT_EQ(b.bytes[4], '#');

    GuardedBuffer c;
    strcpy_safe(c.bytes, 3, "abc");  // one short
    EXPECT_STREQ(c.bytes, "ab");
    EXPECT_EQ(c.bytes[3], '#');

    GuardedBuffer d;
    strcpy_safe(d.bytes, 1, "abc");
    EXPECT_EQ(d.bytes[0], '\0');
    EXPECT_EQ(d.bytes[1], '#');

    GuardedBuffer e;
    strcpy_safe(e.bytes, 0, "abc");
    EXPECT_EQ(e.bytes[0], '#');

    GuardedBuffer f;
    strcpy_safe(f.bytes, 8, nullptr);
    EXPECT_STREQ(f.bytes, "");
}

TEST(BoundedTextTest, StrcatSafeAtItsEdges) {
    GuardedBuffer b;
    strcpy(b.bytes, "ab");
    strcat_safe(b.bytes, 5, "cd");  // exact fit
    EXPECT_STREQ(b.bytes, "abcd");
    EXPECT_EQ(b.bytes[5], '#');

    GuardedBuffer c;
    strcpy(c.bytes, "ab");
    strcat_safe(c.bytes, 4, "cd");  // one short
    EXPECT_STREQ(c.bytes, "abc");
    EXPECT_EQ(c.bytes[4], '#');

    GuardedBuffer d;
    d.bytes[0] = '\0';
    strcat_safe(d.bytes, 1, "cd");
    EXPECT_EQ(d.bytes[0], '\0');
    EXPECT_EQ(d.bytes[1], '#');

    GuardedBuffer e;
    strcat_safe(e.bytes, 0, "cd");
    EXPECT_EQ(e.bytes[0], '#');

    GuardedBuffer f('z');
    strcat_safe(f.bytes, 3, "cd");
    EXPECT_EQ(std::string(f.bytes, 3), std::string("zz\0", 3));
    EXPECT_EQ(f.bytes[3], 'z');
}

TEST(HexTextTest, RoundTripsEveryByteValue) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    const wxString hex = NorvCore::toHexString(bytes, false);
    EXPECT_EQ(hex.length(), 512u);
    EXPECT_EQ(U(hex.Left(8)), "00010203");
    EXPECT_EQ(U(hex.Right(4)), "feff");
    EXPECT_EQ(NorvCore::fromHexString(hex), bytes);

    const wxString separated = NorvCore::toHexString(std::string("\x00\xab\x10", 3), true);
    EXPECT_EQ(U(separated), "00:ab:10");
    EXPECT_EQ(NorvCore::fromHexString(separated), std::string("\x00\xab\x10", 3));
    EXPECT_EQ(U(NorvCore::toHexString(std::string(), true)), "");
}

TEST(HexTextTest, ParsingStopsAtTheFirstPairThatIsNotHex) {
    EXPECT_EQ(NorvCore::fromHexString("0A0bzz01"), std::string("\x0a\x0b", 2));
    EXPECT_EQ(NorvCore::fromHexString("0a0"), std::string("\x0a", 1));
    EXPECT_EQ(NorvCore::fromHexString("0g"), std::string());
    EXPECT_EQ(NorvCore::fromHexString("de ad-be:ef"), std::string("\xde\xad\xbe\xef", 4));
}

TEST(Base64TextTest, EncodesKnownVectorsAndZeroBytes) {
    EXPECT_EQ(U(NorvCore::toBase64String("", false)), "");
    EXPECT_EQ(U(NorvCore::toBase64String("f", false)), "Zg==");
    EXPECT_EQ(U(NorvCore::toBase64String("fo", false)), "Zm8=");
    EXPECT_EQ(U(NorvCore::toBase64String("foo", false)), "Zm9v");
    EXPECT_EQ(U(NorvCore::toBase64String(std::string("\0\0\0\0", 4), false)), "AAAAAA==");

    // Round trip through OpenSSL's decoder, zero bytes included.
    std::string bytes;
    for (int i = 0; i < 100; ++i) {
        bytes += static_cast<char>(i % 3 == 0 ? 0 : i * 7);
    }
    const std::string text = U(NorvCore::toBase64String(bytes, false));
    unsigned char decoded[200];
    const int length = EVP_DecodeBlock(decoded, reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    ASSERT_GE(length, 100);  // EVP_DecodeBlock counts the padding bytes too
    EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded), 100), bytes);
}

TEST(Base64TextTest, FlagBreaksLinesEvery64Characters) {
    const std::string text = U(NorvCore::toBase64String(std::string(96, 'x'), true));
    ASSERT_EQ(text.size(), 128u + 1u);
    EXPECT_EQ(text[64], '\n');
    EXPECT_EQ(text.find('\n', 65), std::string::npos);
    // Exactly 64 characters: no break at all.
    EXPECT_EQ(U(NorvCore::toBase64String(std::string(48, 'x'), true)).find('\n'),
              std::string::npos);
}

TEST(ErrorTextTest, ReplaceBarsAndErrno) {
    EXPECT_EQ(U(NorvCore::ReplaceBars("a|b||c")), "a!b!!c");
    EXPECT_EQ(U(NorvCore::ErrnoToString(ENOENT)), "No such file or directory");
    EXPECT_FALSE(NorvCore::ErrnoToString(123456).empty());
    EXPECT_EQ(U(NorvCore::toString(-42)), "-42");
}

TEST(ErrorTextTest, OpenSSLErrorGivesTheOldestAndLeavesTheQueue) {
    ERR_clear_error();
    EXPECT_EQ(U(NorvCore::OpenSSLError()), "");

    ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
    ERR_raise(ERR_LIB_EVP, EVP_R_BAD_DECRYPT);
    const std::string text = U(NorvCore::OpenSSLError());
    EXPECT_NE(text.find("no start line"), std::string::npos) << text;
    EXPECT_EQ(text.find("bad decrypt"), std::string::npos) << text;
    // Nothing was taken from the queue.
    EXPECT_EQ(U(NorvCore::OpenSSLError()), text);
    EXPECT_NE(ERR_get_error(), 0u);
    EXPECT_NE(ERR_get_error(), 0u);
    EXPECT_EQ(ERR_get_error(), 0u);
}

TEST(SecureFileTest, FolderGets0700AndFileGets0600) {
    char folder[] = "/tmp/norv-secure-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string file = std::string(folder) + "/file";
    FILE* stream = fopen(file.c_str(), "w");
    ASSERT_NE(stream, nullptr);
    fclose(stream);
    ASSERT_EQ(chmod(folder, 0777), 0);
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);

    NorvCore::SecureFileOrDirectory(wxString::FromUTF8(file.c_str()), true);
    NorvCore::SecureFileOrDirectory(wxString::FromUTF8(folder), false);
    struct stat info {};
    ASSERT_EQ(stat(folder, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);

    unlink(file.c_str());
    rmdir(folder);
    NorvCore::TakeOperatorLogLines();
    NorvCore::SecureFileOrDirectory(wxString::FromUTF8(file.c_str()), false);
    const auto lines = NorvCore::TakeOperatorLogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("Warning: Can't restrict access to " + file, 0), 0u) << lines[0];
}

TEST(FormatTest, NarrowTextArgumentsAsCallersPassThem) {
    EXPECT_EQ(Format(L"%.128s|%.128s", "a", "b"), "a|b");
    EXPECT_EQ(Format(L"%.64s|%08x (%.128s)", "open", 0x2au, "denied"), "open|0000002a (denied)");
    EXPECT_EQ(Format(L"%.128s|%.128s|${%.64s}", "1.2.3", "bad", "ipList"), "1.2.3|bad|${ipList}");
    EXPECT_EQ(Format(L"%.3s|%-4s|%4s|", "abcdef", "ab", "ab"), "abc|ab  |  ab|");
    EXPECT_EQ(Format(L"%s %ls %S", static_cast<const char*>(nullptr), L"wide", L"W"),
              "(null) wide W");
    EXPECT_EQ(Format(L"%s", "gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");  // UTF-8 kept
    EXPECT_EQ(Format(L"%s", "\xff"), "\xc3\xbf");  // not UTF-8: taken as Latin-1
}

TEST(FormatTest, PrecisionNeverSplitsAUtf8Sequence) {
    EXPECT_EQ(Format(L"[%.2s]", "\xc3\xa9x"), "[\xc3\xa9]");
    EXPECT_EQ(Format(L"[%.1s]", "\xc3\xa9"), "[]");
    EXPECT_EQ(Format(L"[%.3s]", "a\xe2\x82\xac"), "[a]");
    // The argument need not be terminated beyond the precision.
    const char unterminated[3] = {'x', 'y', 'z'};
    EXPECT_EQ(Format(L"%.3s", unterminated), "xyz");
}

TEST(FormatTest, NumbersCharactersAndOddSpecs) {
    EXPECT_EQ(Format(L"%d %i %u %ld %lld %zu %hhd", -1, 2, 3u, -4L, 5LL, size_t{6}, 257),
              "-1 2 3 -4 5 6 1");
    EXPECT_EQ(Format(L"%X %o %#x %+d % d %05d", 255u, 8u, 16u, 7, 7, 42), "FF 10 0x10 +7  7 00042");
    EXPECT_EQ(Format(L"%.2f %e %g", 3.14159, 1.0, 0.5), "3.14 1.000000e+00 0.5");
    EXPECT_EQ(Format(L"%c%lc%%", 'A', static_cast<wint_t>(0xe9)), "A\xc3\xa9%");
    EXPECT_EQ(Format(L"%*d|%-*d|%.*s", 4, 1, 3, 2, 2, "abc"), "   1|2  |ab");
    EXPECT_EQ(Format(L"%*d|", -3, 1), "1  |");
    int ignored = 0;
    EXPECT_EQ(Format(L"a%nb%d", &ignored, 5), "ab5");
    EXPECT_EQ(ignored, 0);
    EXPECT_EQ(Format(L"%d %y %d", 1, 2, 3), "1 %y %d");
    EXPECT_EQ(Format(L"end %", 1), "end %");
    EXPECT_EQ(Format(L"\u00e9t\u00e9 %d", 1), "\xc3\xa9t\xc3\xa9 1");
}

}  // namespace
