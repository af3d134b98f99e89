// A temporary folder for one test, removed with everything in it at the end.
#pragma once

#include <cstdlib>
#include <string>

#include <wx/filename.h>

class TempFolder {
public:
    TempFolder() {
        char pattern[] = "/tmp/vexil-test-XXXXXX";
        const char* made = mkdtemp(pattern);
        m_Path = made ? made : "";
    }
    ~TempFolder() {
        if (!m_Path.empty()) {
            wxFileName::Rmdir(m_Path, wxPATH_RMDIR_RECURSIVE);
        }
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_Path; }

private:
    std::string m_Path;
};
