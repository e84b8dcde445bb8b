#include "stream/PendingFiles.h"

#include <windows.h>

#include <io.h>

namespace qv {

namespace {

HANDLE handleOf(FILE* file) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))); }

// The runtime's buffer to the system, then the system's cache to the disk.
bool commit(FILE* file)
{
    if (std::fflush(file) != 0)
        return false;
    const HANDLE handle = handleOf(file);
    return handle != INVALID_HANDLE_VALUE && FlushFileBuffers(handle) != FALSE;
}

} // namespace

bool PendingFiles::add(FILE* file, uint64_t fileTime)
{
    if (!file)
        return true;
    // No write may follow the times, or it would move them again.
    if (std::fflush(file) != 0)
        lost_ = true;
    bool timeSet = true;
    if (fileTime != 0) {
        FILETIME time;
        time.dwLowDateTime = static_cast<DWORD>(fileTime);
        time.dwHighDateTime = static_cast<DWORD>(fileTime >> 32);
        const HANDLE handle = handleOf(file);
        timeSet = handle != INVALID_HANDLE_VALUE && SetFileTime(handle, &time, &time, &time) != FALSE;
    }
    const DWORD error = GetLastError();
    files_.push_back(file);
    if (files_.size() >= kMaxOpen)
        flushAll(); // a failure stays in lost_ for the next checkpoint
    SetLastError(error);
    return timeSet;
}

bool PendingFiles::flushAll(FILE* current)
{
    bool ok = !lost_;
    for (FILE* file : files_) {
        ok = commit(file) && ok;
        std::fclose(file);
    }
    files_.clear();
    if (current)
        ok = commit(current) && ok;
    lost_ = !ok; // bytes that did not reach the disk never will: no later checkpoint counts on them
    return ok;
}

void PendingFiles::closeAll()
{
    for (FILE* file : files_)
        std::fclose(file);
    files_.clear();
}

} // namespace qv
