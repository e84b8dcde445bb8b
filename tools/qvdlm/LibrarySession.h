// The library objects one qvdlm command works with: the request store, the optional download log, the
// download manager and the event listener, made in the right order and released in the reverse one.
#pragma once

#include <windows.h>

#include <string>

#include "Console.h"
#include "EventCollector.h"
#include "QvDLM.h"

namespace qvcli {

class LibrarySession {
public:
    explicit LibrarySession(Console& console) : console_(console) {}
    ~LibrarySession();

    // storePath empty: the library's own store. logPath empty: no log. Reports failures itself.
    bool openStore(const std::wstring& storePath);
    bool openLog(const std::wstring& logPath);
    bool openManager();

    DownloadRequestLog* store() const { return store_; }
    DownloadMgr* manager() const { return manager_; }
    EventCollector& events() { return events_; }

    LibrarySession(const LibrarySession&) = delete;
    LibrarySession& operator=(const LibrarySession&) = delete;

private:
    Console& console_;
    DownloadRequestLog* store_ = nullptr;
    HMODULE resources_ = nullptr;
    Log* log_ = nullptr;
    DownloadMgr* manager_ = nullptr;
    EventCollector events_;
    bool subscribed_ = false;
};

// path made absolute (relative to the current folder); unchanged when that fails.
std::wstring absolutePath(const std::wstring& path);

// The system's text for a Win32 error code, without the trailing line break.
std::wstring systemErrorText(DWORD code);

} // namespace qvcli
