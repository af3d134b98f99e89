// LogData: reading the family of log files back for the agent, by time span.
//
// Lines do not stand in time order: a coalesced record bears the time of its
// first event and reaches the file up to one cache life time later. So the
// span is widened by that margin, and in the live file a read position per
// role (a line number kept as a host value, so that it outlives the process)
// lets a line that came late still be delivered, once.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include <wx/filename.h>
#include <wx/log.h>

#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "log/LineScan.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"

namespace VEXIL {

// What one read-back looks for; the same for every file of the family.
struct ReadBackSpan {
    int role;
    char roleCharacter;  // column 3 of the wanted lines
    i64 startTime;       // seconds, 0 for open
    i64 endTime;         // seconds, 0 for open
    // The margin of one cache life time round the span: the oldest late
    // line delivered, and the time past which a file is left.
    i64 lateLimit;  // startTime - margin
    i64 endLimit;   // endTime + margin
};

namespace {

// A line is read into a buffer of this size; a longer one comes in pieces of
// one byte less, each counting as a line of its own.
constexpr size_t kLineBufferSize = 9344;
constexpr size_t kMaxPiece = kLineBufferSize - 1;
// Characters of the date and time columns in front of what is delivered.
constexpr size_t kDateTimeLength = 22;
// The most room a sink is given ahead of a read-back.
constexpr size_t kMaxReserve = 64 * 1024 * 1024;

// Reads one file in pieces: each piece ends after a line feed, or holds
// kMaxPiece bytes, or is the rest of the file. The pieces point into the
// reader's own buffer and stay valid until the next call. Owned by the
// read-back that made it.
class CLinePieceReader {
public:
    explicit CLinePieceReader(int fd) : m_Fd(fd), m_Buffer(new char[kReadSize]) {}

    // The first byte of the piece that is not printable comes along as
    // stop (length when there is none): the line feed that ends a piece is
    // sought from there on, and the piece holds that byte.
    bool Next(const char*& piece, size_t& length, size_t& stop) {
        for (;;) {
            const size_t available = m_End - m_Start;
            const size_t window = available < kMaxPiece ? available : kMaxPiece;
            const char* start = m_Buffer.get() + m_Start;
            stop = FindUnprintable(start, window);
            const char* lineFeed = FindLineFeed(start, stop, window);
            if (lineFeed != nullptr) {
                length = lineFeed - start + 1;
            } else if (window == kMaxPiece || (m_EndOfFile && available > 0)) {
                length = window;
            } else if (m_EndOfFile) {
                return false;
            } else {
                Fill();
                continue;
            }
            piece = start;
            m_Start += length;
            return true;
        }
    }

    // Skips input up to and including the next line feed; false when the
    // end of the file comes first.
    bool SkipPastLineFeed() {
        for (;;) {
            const char* start = m_Buffer.get() + m_Start;
            const void* lineFeed = std::memchr(start, '\n', m_End - m_Start);
            if (lineFeed != nullptr) {
                m_Start += static_cast<const char*>(lineFeed) - start + 1;
                return true;
            }
            m_Start = m_End;
            if (m_EndOfFile) {
                return false;
            }
            Fill();
        }
    }

private:
    static constexpr size_t kReadSize = 256 * 1024;

    // The first line feed of text[from, window), where from is the first
    // byte that is not printable; a line ends in CR LF, so that is nearly
    // always where it stands.
    static const char* FindLineFeed(const char* text, size_t from, size_t window) {
        if (from < window && text[from] == '\n') {
            return text + from;
        }
        if (from + 1 < window && text[from] == '\r' && text[from + 1] == '\n') {
            return text + from + 1;
        }
        return from < window
                   ? static_cast<const char*>(std::memchr(text + from, '\n', window - from))
                   : nullptr;
    }

    // Moves what is left to the front and reads behind it; a read error
    // counts as the end of the file.
    void Fill() {
        if (m_Start > 0) {
            std::memmove(m_Buffer.get(), m_Buffer.get() + m_Start, m_End - m_Start);
            m_End -= m_Start;
            m_Start = 0;
        }
        for (;;) {
            const ssize_t count = ::read(m_Fd, m_Buffer.get() + m_End, kReadSize - m_End);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                m_EndOfFile = true;
            } else {
                m_End += size_t(count);
            }
            return;
        }
    }

    const int m_Fd;
    // Not cleared: only the bytes that read() filled are ever looked at.
    const std::unique_ptr<char[]> m_Buffer;
    size_t m_Start = 0;
    size_t m_End = 0;
    bool m_EndOfFile = false;
};

// Closes a file descriptor at the end of its scope.
class CFdCloser {
public:
    explicit CFdCloser(int fd) : m_Fd(fd) {}
    ~CFdCloser() { ::close(m_Fd); }
    CFdCloser(const CFdCloser&) = delete;
    CFdCloser& operator=(const CFdCloser&) = delete;

private:
    const int m_Fd;
};

// a + b, held at the limits of i64.
i64 SaturatingAdd(i64 a, i64 b) {
    i64 sum;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? INT64_MAX : INT64_MIN;
    }
    return sum;
}

// Opens a file of the family for reading, shared with the writer. It never
// waits: a FIFO or a device that has found its way into the family is refused
// (EINVAL) rather than waited on or read without end. -1 with the error number
// in error on failure.
int OpenForReading(const char* name, int& error) {
    const int fd = ::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        error = errno;
        return -1;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        error = EINVAL;
    } else {
        return fd;
    }
    ::close(fd);
    return -1;
}

const char* Utf8(const wxString& text, wxScopedCharBuffer& keep) {
    keep = text.utf8_str();
    return keep.data();
}

}  // namespace

bool LogData::GetLogData(int role, i64 startTime, i64 endTime, const wxString& uuid,
                         LogLineSink* sink) {
    DrainQueue(750);
    u32 lifetimeMsec;
    {
        NorvCore::CCriticalSectionLocker lock(m_CacheLock);
        lifetimeMsec = m_CacheLifetimeMsec;
    }
    NorvCore::CCriticalSectionLocker lock(m_ReadLock);
    NORV_TRACE(L"vexil", wxString::Format("GetLogData(%llu, %llu, %.128s) for %.32s",
                                          (unsigned long long)startTime,
                                          (unsigned long long)endTime, uuid, m_LogName));
    if (role < kRolePacket || role > kRoleCapture) {
        role = kRolePacket;
    }
    const i64 margin = i64((lifetimeMsec + 500) / 1000);
    ReadBackSpan span;
    span.role = role;
    span.roleCharacter = role == kRolePacket ? 'f' : 'd';
    span.startTime = startTime;
    span.endTime = endTime;
    span.lateLimit = SaturatingAdd(startTime, -margin);
    span.endLimit = SaturatingAdd(endTime, margin);

    wxArrayString files;
    if (ListLogFiles(m_LogFileName, files) == size_t(-1)) {
        const int error = errno;
        wxScopedCharBuffer text;
        m_Dom->DoAgentEventWrite(3300, L"%.128s", Utf8(NorvCore::ErrnoToString(error), text));
        return false;
    }
    if (sink != nullptr) {
        // The family's size bounds what the read-back can deliver.
        size_t bytes = 0;
        for (size_t i = 0; i < files.GetCount(); ++i) {
            struct stat status;
            if (::stat(files[i].fn_str(), &status) == 0 && S_ISREG(status.st_mode)) {
                bytes += size_t(status.st_size);
            }
        }
        sink->Reserve(bytes < kMaxReserve ? bytes : kMaxReserve);
    }
    // Oldest copy first, the live file last.
    for (size_t i = files.GetCount(); i-- > 0;) {
        const wxString& path = files[i];
        const bool primary = FileNameOf(path) == m_LogFileName;
        NORV_TRACE(L"vexil", wxString::Format("GetLogData() - Looking at file %.128s", path));
        if (primary) {
            NORV_TRACE(L"vexil", "GetLogData() - File is primary");
        }
        if (!ReadBackFile(path, primary, span, sink)) {
            return true;
        }
    }
    return true;
}

bool LogData::ReadBackFile(const wxString& path, bool primary, const ReadBackSpan& span,
                           LogLineSink* sink) {
    const wxScopedCharBuffer fileName = path.fn_str();
    if (span.startTime != 0) {
        struct stat status;
        if (::stat(fileName, &status) != 0) {
            wxLogSysError("Failed to retrieve file times for '%s'", path);
            return true;
        }
        if (span.startTime > i64(status.st_mtime)) {
            NORV_TRACE(L"vexil", wxString::Format("GetLogData() - Skipping all of file %s since "
                                                  "it's older than we want",
                                                  path));
            return true;
        }
    }
    int error = 0;
    const int fd = OpenForReading(fileName, error);
    if (fd < 0) {
        wxScopedCharBuffer name, text;
        m_Dom->DoAgentEventWrite(3001, L"%.64s|%.128s", Utf8(path, name),
                                 Utf8(NorvCore::ErrnoToString(error), text));
        return true;
    }
    CFdCloser closer(fd);
    CLinePieceReader reader(fd);

    // The read position only matters in the live file. It is read once and
    // stored once, when the file is done: nothing but this scan (under
    // m_ReadLock) and a rotation move it, and a rotation is not ordered
    // against a scan in any case.
    const char* const key = m_LastLineKeys[span.role];
    i64 storedPosition = 0;
    if (primary && !m_Dom->Get(key, storedPosition)) {
        storedPosition = 0;
    }
    u64 position = u64(storedPosition);
    bool positionMoved = false;
    auto storePosition = [&] {
        if (positionMoved) {
            m_Dom->Set(key, i64(position));
        }
    };

    char saved[kLineBufferSize];
    bool firstLine = true;
    const char* piece;
    size_t length;
    size_t scanned;
    for (u64 lineNumber = 0; reader.Next(piece, length, scanned); ++lineNumber, firstLine = false) {
        size_t lineLength = length;
        bool printable = true;
        if (scanned < length) {
            const char stop = piece[scanned];
            if (stop == '\r' || stop == '\n') {
                lineLength = scanned;
            } else {
                if (path != m_LastBadFile) {
                    wxLogWarning(
                        "!6001!Non-printable data encountered in log file '%.256s'. The "
                        "file may be corrupt, and if so, it should be deleted.",
                        path);
                    m_LastBadFile = path;
                }
                if (piece[length - 1] == '\n') {
                    continue;
                }
                // The rest of the line is skipped; when the file ends first,
                // what was read is examined all the same.
                printable = false;
                std::memcpy(saved, piece, length);
                piece = saved;
                if (reader.SkipPastLineFeed()) {
                    continue;
                }
            }
        }
        // A line of another role, or without a time, is left out.
        const i64 firstTimeUsec =
            lineLength == 0 ? 0 : LineFirstTime(piece, scanned, lineLength, span.roleCharacter);
        if (firstTimeUsec == 0) {
            continue;
        }
        const i64 time = firstTimeUsec / 1000000;
        if (time == -1) {
            continue;
        }

        if (span.endTime != 0 && firstLine && time > span.endLimit) {
            NORV_TRACE(L"vexil", wxString::Format("GetLogData() - Skipping all of file %.128s "
                                                  "since it's newer than we want.",
                                                  path));
            break;
        }
        if (span.startTime != 0 && time < span.startTime) {
            // A late line: delivered only from the live file, only past the
            // read position, and only within the margin.
            if (!primary || !(position < lineNumber) || time < span.lateLimit) {
                continue;
            }
        }
        if (span.endTime != 0 && time > span.endLimit) {
            NORV_TRACE(L"vexil", wxString::Format("GetLogData() - Skipping rest of file %.128s "
                                                  "since the timestamps are newer than we want.",
                                                  path));
            break;
        }
        if (span.endTime != 0 && time > span.endTime) {
            continue;
        }

        if (primary && position < lineNumber) {
            position = lineNumber;
            positionMoved = true;
        }
        if (sink == nullptr) {
            storePosition();
            return false;
        }
        if (lineLength > kDateTimeLength) {
            sink->AddLine(piece + kDateTimeLength, lineLength - kDateTimeLength, printable);
        } else {
            sink->AddLine(piece, 0, true);
        }
    }
    storePosition();
    return true;
}

}  // namespace VEXIL
