// Text helpers of the host core.
//
// The four global bounded helpers never write more than size bytes and always
// leave the buffer terminated (when size > 0); text that does not fit is cut.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

#include <wx/string.h>

#include "host/Types.h"

// Formats into buffer. Returns the length written (excluding the terminator).
int snprintf_safe(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Appends formatted text to the terminated text in buffer. Returns the length
// of the whole text now in buffer.
int snprintfcat(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Copies source into target.
char* strcpy_safe(char* target, size_t size, const char* source);
// Appends source to the terminated text in target.
char* strcat_safe(char* target, size_t size, const char* source);

namespace NorvCore {

wxString toString(int value);
// Lower-case hexadecimal, two digits a byte; flag true separates bytes by ':'.
wxString toHexString(const std::string& bytes, bool flag);
// The reverse of toHexString (separators allowed); stops at the first pair
// that is not hexadecimal.
std::string fromHexString(const wxString& text);
// Standard base64 with padding; flag true breaks lines every 64 characters.
wxString toBase64String(const std::string& bytes, bool flag);
// The text with every '|' replaced by '!', so it can stand in an event detail.
wxString ReplaceBars(const wxString& text);
// The text of the oldest queued OpenSSL error, or "" when none is queued.
wxString OpenSSLError();
wxString ErrnoToString(int code);
// Restricts the path to its owner: 0700 for a folder, 0600 for a file.
void SecureFileOrDirectory(const wxString& path, bool flag);

// Formats a wide printf-style format whose %s arguments are narrow UTF-8
// texts (const char*), as the event writers pass them; %ls takes a wide text.
// Supported: the flags "-+ #0", width and precision (also '*'), the length
// modifiers hh h l ll j z t L, and the conversions d i u o x X c s p e E f F
// g G a A %. Precision of %s counts bytes and never splits a UTF-8 sequence;
// %n is not supported (its argument is skipped). An unknown conversion ends
// the formatting: the rest of the format is copied as it stands.
wxString FormatWithNarrowArgs(const wchar_t* format, va_list args);

}  // namespace NorvCore
