// Text helpers of the host core: bounded narrow buffers, hexadecimal and
// base64 texts, error texts, file modes, and the formatter of event details.
// Nothing here keeps state; every function may be called from any thread.
#include "host/TextHelpers.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include <wx/log.h>

namespace {

// Length of the terminated text in a buffer of size bytes; a buffer that
// holds no terminator is cut to size - 1 so that it becomes terminated.
size_t TerminatedLength(char* buffer, size_t size) {
    const size_t length = strnlen(buffer, size);
    if (length < size) {
        return length;
    }
    buffer[size - 1] = '\0';
    return size - 1;
}

int FormatInto(char* buffer, size_t size, const char* format, va_list args) {
    const int written = vsnprintf(buffer, size, format, args);
    if (written < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<int>(std::min(static_cast<size_t>(written), size - 1));
}

}  // namespace

int snprintf_safe(char* buffer, size_t size, const char* format, ...) {
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    if (format == nullptr) {
        buffer[0] = '\0';
        return 0;
    }
    va_list args;
    va_start(args, format);
    const int length = FormatInto(buffer, size, format, args);
    va_end(args);
    return length;
}

int snprintfcat(char* buffer, size_t size, const char* format, ...) {
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    const size_t length = TerminatedLength(buffer, size);
    if (format == nullptr || length + 1 >= size) {
        return static_cast<int>(length);
    }
    va_list args;
    va_start(args, format);
    const int appended = FormatInto(buffer + length, size - length, format, args);
    va_end(args);
    return static_cast<int>(length) + appended;
}

char* strcpy_safe(char* target, size_t size, const char* source) {
    if (target == nullptr || size == 0) {
        return target;
    }
    const size_t length = source == nullptr ? 0 : strnlen(source, size - 1);
    if (length > 0) {
        memmove(target, source, length);
    }
    target[length] = '\0';
    return target;
}

char* strcat_safe(char* target, size_t size, const char* source) {
    if (target == nullptr || size == 0) {
        return target;
    }
    const size_t length = TerminatedLength(target, size);
    if (source == nullptr) {
        return target;
    }
    const size_t room = size - 1 - length;
    const size_t extra = strnlen(source, room);
    memmove(target + length, source, extra);
    target[length + extra] = '\0';
    return target;
}

namespace NorvCore {

namespace {

int HexValue(wxUniChar c) {
    const wxUniChar::value_type v = c.GetValue();
    if (v >= '0' && v <= '9') {
        return static_cast<int>(v - '0');
    }
    if (v >= 'a' && v <= 'f') {
        return static_cast<int>(v - 'a' + 10);
    }
    if (v >= 'A' && v <= 'F') {
        return static_cast<int>(v - 'A' + 10);
    }
    return -1;
}

bool IsHexSeparator(wxUniChar c) {
    return c == ':' || c == ' ' || c == '-';
}

}  // namespace

wxString toString(int value) {
    return wxString::Format("%d", value);
}

wxString toHexString(const std::string& bytes, bool flag) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 3);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (flag && i > 0) {
            text += ':';
        }
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return wxString::FromAscii(text.c_str());
}

std::string fromHexString(const wxString& text) {
    std::string bytes;
    size_t i = 0;
    const size_t length = text.length();
    while (i < length) {
        if (IsHexSeparator(text[i])) {
            ++i;
            continue;
        }
        if (i + 1 >= length) {
            break;
        }
        const int high = HexValue(text[i]);
        const int low = HexValue(text[i + 1]);
        if (high < 0 || low < 0) {
            break;
        }
        bytes += static_cast<char>((high << 4) | low);
        i += 2;
    }
    return bytes;
}

wxString toBase64String(const std::string& bytes, bool flag) {
    if (bytes.empty()) {
        return wxString();
    }
    std::vector<unsigned char> encoded(4 * ((bytes.size() + 2) / 3) + 1);
    const int length =
        EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
    if (length <= 0) {
        return wxString();
    }
    std::string text(reinterpret_cast<const char*>(encoded.data()), static_cast<size_t>(length));
    if (flag) {
        std::string broken;
        broken.reserve(text.size() + text.size() / 64 + 1);
        for (size_t i = 0; i < text.size(); i += 64) {
            if (i > 0) {
                broken += '\n';
            }
            broken.append(text, i, 64);
        }
        text.swap(broken);
    }
    return wxString::FromAscii(text.c_str());
}

wxString ReplaceBars(const wxString& text) {
    wxString result(text);
    result.Replace("|", "!");
    return result;
}

wxString OpenSSLError() {
    const unsigned long code = ERR_peek_error();
    if (code == 0) {
        return wxString();
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return wxString::FromUTF8(text);
}

wxString ErrnoToString(int code) {
    char buffer[256];
    buffer[0] = '\0';
    // The GNU form, which g++ always selects: it returns the text.
    const char* text = strerror_r(code, buffer, sizeof(buffer));
    return wxString::FromUTF8(text);
}

void SecureFileOrDirectory(const wxString& path, bool flag) {
    (void)flag;  // the mode depends on the kind of path alone
    const wxScopedCharBuffer name = path.utf8_str();
    struct stat info {};
    if (stat(name.data(), &info) != 0) {
        const int error = errno;
        wxLogWarning("Can't restrict access to %s: %s", path, ErrnoToString(error));
        return;
    }
    const mode_t mode = S_ISDIR(info.st_mode) ? 0700 : 0600;
    if (chmod(name.data(), mode) != 0) {
        const int error = errno;
        wxLogWarning("Can't restrict access to %s: %s", path, ErrnoToString(error));
    }
}

namespace {

// Appends one narrow number field, formatted by snprintf with spec.
template <typename T>
void AppendNumber(std::wstring& out, const std::string& spec, T value) {
    char small[64];
    const int length = snprintf(small, sizeof(small), spec.c_str(), value);
    if (length < 0) {
        return;
    }
    if (static_cast<size_t>(length) < sizeof(small)) {
        out.append(small, small + length);
        return;
    }
    std::vector<char> large(static_cast<size_t>(length) + 1);
    snprintf(large.data(), large.size(), spec.c_str(), value);
    out.append(large.data(), large.data() + length);
}

// Appends text padded to width characters, on the left unless leftAlign.
void AppendPadded(std::wstring& out, const std::wstring& text, int width, bool leftAlign) {
    const size_t pad = width > 0 && static_cast<size_t>(width) > text.size()
                           ? static_cast<size_t>(width) - text.size()
                           : 0;
    if (!leftAlign) {
        out.append(pad, L' ');
    }
    out += text;
    if (leftAlign) {
        out.append(pad, L' ');
    }
}

// The first length bytes of a narrow text, without a UTF-8 sequence that the
// cut left incomplete.
size_t WholeUtf8Prefix(const char* text, size_t length) {
    size_t start = length;
    size_t back = 0;
    while (start > 0 && back < 4) {
        --start;
        ++back;
        const unsigned char byte = static_cast<unsigned char>(text[start]);
        if ((byte & 0xC0) != 0x80) {
            size_t needed = 1;
            if ((byte & 0xE0) == 0xC0) {
                needed = 2;
            } else if ((byte & 0xF0) == 0xE0) {
                needed = 3;
            } else if ((byte & 0xF8) == 0xF0) {
                needed = 4;
            }
            return back < needed ? start : length;
        }
    }
    return length;
}

std::wstring NarrowToWide(const char* text, size_t length) {
    wxString converted = wxString::FromUTF8(text, length);
    if (converted.empty() && length > 0) {
        // Not UTF-8: keep the bytes as Latin-1 rather than lose the text.
        converted = wxString(text, wxConvISO8859_1, length);
    }
    return converted.ToStdWstring();
}

// One conversion's parts, as read from the format.
struct Spec {
    std::string flags;
    int width = -1;
    int precision = -1;
    std::string length;
    wchar_t conversion = 0;
    bool leftAlign = false;

    // The narrow printf spec for snprintf, with '*' already resolved.
    std::string Narrow(const char* lengthOverride = nullptr) const {
        std::string spec = "%" + flags;
        if (width >= 0) {
            spec += std::to_string(width);
        }
        if (precision >= 0) {
            spec += "." + std::to_string(precision);
        }
        spec += lengthOverride != nullptr ? lengthOverride : length.c_str();
        spec += static_cast<char>(conversion);
        return spec;
    }
};

}  // namespace

wxString FormatWithNarrowArgs(const wchar_t* format, va_list args) {
    if (format == nullptr) {
        return wxString();
    }
    std::wstring out;
    const wchar_t* p = format;
    while (*p != L'\0') {
        if (*p != L'%') {
            out += *p++;
            continue;
        }
        const wchar_t* specStart = p++;
        Spec spec;
        while (*p != L'\0' && wcschr(L"-+ #0", *p) != nullptr) {
            if (*p == L'-') {
                spec.leftAlign = true;
            }
            spec.flags += static_cast<char>(*p++);
        }
        if (*p == L'*') {
            ++p;
            spec.width = va_arg(args, int);
            if (spec.width > 100000) {
                spec.width = 100000;
            } else if (spec.width < 0) {
                spec.leftAlign = true;
                spec.flags += '-';
                spec.width = spec.width == INT_MIN ? 0 : std::min(-spec.width, 100000);
            }
        } else {
            while (*p >= L'0' && *p <= L'9') {
                spec.width = std::max(spec.width, 0) * 10 + (*p++ - L'0');
                spec.width = std::min(spec.width, 100000);
            }
        }
        if (*p == L'.') {
            ++p;
            spec.precision = 0;
            if (*p == L'*') {
                ++p;
                spec.precision = std::min(va_arg(args, int), 100000);
                if (spec.precision < 0) {
                    spec.precision = -1;
                }
            } else {
                while (*p >= L'0' && *p <= L'9') {
                    spec.precision = std::min(spec.precision * 10 + (*p++ - L'0'), 100000);
                }
            }
        }
        while (*p != L'\0' && wcschr(L"hlLjzt", *p) != nullptr) {
            spec.length += static_cast<char>(*p++);
        }
        spec.conversion = *p;
        const std::string& len = spec.length;
        switch (spec.conversion) {
            case L'd':
            case L'i':
                if (len == "l") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, long));
                } else if (len == "ll") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, long long));
                } else if (len == "j") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, intmax_t));
                } else if (len == "z" || len == "t") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, ptrdiff_t));
                } else {
                    AppendNumber(out, spec.Narrow(), va_arg(args, int));
                }
                break;
            case L'u':
            case L'o':
            case L'x':
            case L'X':
                if (len == "l") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, unsigned long));
                } else if (len == "ll") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, unsigned long long));
                } else if (len == "j") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, uintmax_t));
                } else if (len == "z" || len == "t") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, size_t));
                } else {
                    AppendNumber(out, spec.Narrow(), va_arg(args, unsigned int));
                }
                break;
            case L'e':
            case L'E':
            case L'f':
            case L'F':
            case L'g':
            case L'G':
            case L'a':
            case L'A':
                if (len == "L") {
                    AppendNumber(out, spec.Narrow(), va_arg(args, long double));
                } else {
                    AppendNumber(out, spec.Narrow(""), va_arg(args, double));
                }
                break;
            case L'p':
                AppendNumber(out, spec.Narrow(""), va_arg(args, void*));
                break;
            case L'c': {
                const wchar_t c =
                    len == "l"
                        ? static_cast<wchar_t>(va_arg(args, wint_t))
                        : static_cast<wchar_t>(static_cast<unsigned char>(va_arg(args, int)));
                AppendPadded(out, std::wstring(1, c), spec.width, spec.leftAlign);
                break;
            }
            case L's':
            case L'S': {
                std::wstring text;
                if (len == "l" || spec.conversion == L'S') {
                    const wchar_t* wide = va_arg(args, const wchar_t*);
                    if (wide == nullptr) {
                        wide = L"(null)";
                    }
                    const size_t limit = spec.precision >= 0 ? static_cast<size_t>(spec.precision)
                                                             : static_cast<size_t>(-1);
                    text.assign(wide, wcsnlen(wide, limit));
                } else {
                    const char* narrow = va_arg(args, const char*);
                    if (narrow == nullptr) {
                        narrow = "(null)";
                    }
                    size_t length = spec.precision >= 0
                                        ? strnlen(narrow, static_cast<size_t>(spec.precision))
                                        : strlen(narrow);
                    if (spec.precision >= 0 && length == static_cast<size_t>(spec.precision)) {
                        length = WholeUtf8Prefix(narrow, length);
                    }
                    text = NarrowToWide(narrow, length);
                }
                AppendPadded(out, text, spec.width, spec.leftAlign);
                break;
            }
            case L'n':
                // Writing through an argument is never wanted in a detail.
                (void)va_arg(args, void*);
                break;
            case L'%':
                out += L'%';
                break;
            default:
                // Unknown conversion: the argument types are unknown from here.
                out += specStart;
                return wxString(out);
        }
        ++p;
    }
    return wxString(out);
}

}  // namespace NorvCore
