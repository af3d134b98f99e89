// LogData: the file store. Lines go to the live file; when it has reached its
// size it moves aside as old copy 1, the others shift up, and copies beyond
// the limit are deleted. Disk trouble never stops the pipeline: it becomes an
// agent event, and the line in question is lost.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <wx/filename.h>
#include <wx/log.h>

#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "log/LogData.h"

namespace VEXIL {

namespace {

const char* Utf8(const wxString& text, wxScopedCharBuffer& keep) {
    keep = text.utf8_str();
    return keep.data();
}

}  // namespace

bool LogData::WriteRawData(size_t length, const void* bytes) {
    if (length == 0) {
        return true;
    }
    const char* next = static_cast<const char*>(bytes);
    size_t remaining = length;
    int lastError = 0;
    int error = 0;
    for (;;) {
        const ssize_t written = m_WriteFunction(m_LogFile.fd(), next, remaining);
        if (written > 0 && m_LogFileLength != wxInvalidOffset) {
            m_LogFileLength += written;
        }
        if (written >= 0 && size_t(written) == remaining) {
            m_OutOfSpaceReported = false;
            return true;
        }
        if (written > 0) {
            next += written;
            remaining -= size_t(written);
            lastError = 0;
            continue;
        }
        error = written < 0 ? errno : EIO;
        if (error == EINTR) {
            lastError = EINTR;
            continue;
        }
        if (error == ENOSPC && lastError != ENOSPC) {
            // Make room once between two steps of progress.
            lastError = ENOSPC;
            if (!m_OutOfSpaceReported) {
                wxLogWarning(
                    "Out of space on the log file disk. Trying to make room by deleting "
                    "old log files.");
                m_Dom->AgentEventWrite(6009, wxString());
                m_OutOfSpaceReported = true;
            }
            NORV_TRACE(L"vexil", wxString::Format("RemoveOldestFile() for %.32s", m_LogName));
            errno = ENOSPC;
            if (RemoveOldFiles(true)) {
                continue;
            }
            error = errno;
        }
        break;
    }
    if (error != ENOSPC) {
        wxScopedCharBuffer path;
        m_Dom->DoAgentEventWrite(6002, L"%.128s", Utf8(m_LogFileFullPath, path));
    }
    m_LogFile.Close();
    return false;
}

bool LogData::CloseLogFile() {
    if (!m_LogFile.IsOpened()) {
        return true;
    }
    // The length counted since the opening; read from the file only when it
    // could not be read at the opening.
    wxFileOffset length = m_LogFileLength;
    if (length == wxInvalidOffset) {
        wxLogNull quiet;
        length = m_LogFile.Length();
    }
    m_LogFile.Close();
    if (length == wxInvalidOffset) {
        wxScopedCharBuffer path;
        m_Dom->DoAgentEventWrite(6004, L"%.128s", Utf8(m_LogFileFullPath, path));
        return false;
    }
    if (length / 1024 < m_LogFileSizeKB) {
        return true;
    }
    return RotateFiles();
}

wxString LogData::OldCopyPath(int number) const {
    if (number == 0) {
        return m_LogFileFullPath;
    }
    // The number takes the place of any extension the name has.
    wxFileName name(m_LogFileFullPath);
    name.SetExt(wxString::Format("%d", number));
    return name.GetFullPath();
}

bool LogData::RotateFiles() {
    NORV_TRACE(L"vexil", wxString::Format("RotateFiles() for %.32s", m_LogName));
    if (!RemoveOldFiles(false)) {
        return false;
    }
    // Read positions count lines of the live file; the capture role keeps its own.
    m_Dom->Set(m_LastLineKeys[kRolePacket], i64(0));
    m_Dom->Set(m_LastLineKeys[kRolePayload], i64(0));

    for (int n = m_NumberOfOldCopies - 1; n >= 0; --n) {
        const wxString source = OldCopyPath(n);
        if (!wxFileName::FileExists(source)) {
            continue;
        }
        const wxString target = OldCopyPath(n + 1);
        NORV_TRACE(L"vexil",
                   wxString::Format("RotateFiles() - renaming %.128s to %.128s", source, target));
        if (std::rename(source.utf8_str(), target.utf8_str()) != 0) {
            const int error = errno;
            wxScopedCharBuffer s, t, e;
            m_Dom->DoAgentEventWrite(6007, L"%.128s|%.128s|%.128s", Utf8(source, s),
                                     Utf8(target, t), Utf8(NorvCore::ErrnoToString(error), e));
            continue;
        }
        NorvCore::SecureFileOrDirectory(target, false);
    }
    return true;
}

bool LogData::RemoveOldFiles(bool onlyOldest) {
    NORV_TRACE(L"vexil", wxString::Format("RemoveOldFiles() for %.32s", m_LogName));
    wxArrayString files;
    if (ListLogFiles(m_LogFileName, files) == size_t(-1)) {
        const int error = errno;
        wxScopedCharBuffer text;
        m_Dom->DoAgentEventWrite(3300, L"%.128s", Utf8(NorvCore::ErrnoToString(error), text));
        errno = error;
        return false;
    }
    for (size_t i = files.GetCount(); i-- > 0;) {
        const long number = LogFileNumber(files[i]);
        if (number < m_NumberOfOldCopies && (number < 1 || !onlyOldest)) {
            continue;
        }
        if (::unlink(files[i].utf8_str()) == 0) {
            NORV_TRACE(L"vexil", wxString::Format("Deleted log file %.128s", files[i]));
            if (onlyOldest) {
                break;
            }
        } else {
            const int error = errno;
            wxScopedCharBuffer path, text;
            m_Dom->DoAgentEventWrite(6006, L"%.128s|%.128s", Utf8(files[i], path),
                                     Utf8(NorvCore::ErrnoToString(error), text));
        }
    }
    return true;
}

}  // namespace VEXIL
