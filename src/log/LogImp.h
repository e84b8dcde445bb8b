// The download log: a UTF-16LE text file (no byte-order mark) with one time-stamped entry per line
// of every event it receives.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>

#include "Log.h"
#include "common/Win32Raii.h"

class Download;

class LogImp final : public Log {
public:
    LogImp() = default;
    ~LogImp() override;

    LogImp(const LogImp&) = delete;
    LogImp& operator=(const LogImp&) = delete;

    void notify(const EventRecord* record) override;
    bool open(const wchar_t* path) override;

    // The resource module found by the last successful open.
    HMODULE resourceModule() const { return resourceModule_; }

private:
    // Where a line about a download ends: " for <name> (<url>)", or nothing.
    struct Subject {
        const wchar_t* lead = L"";
        const wchar_t* name = L"";
        const wchar_t* open = L"";
        const wchar_t* url = L"";
        const wchar_t* close = L"";
    };

    static Subject subjectOf(Download* source);

    void writeMessageLine(uint32_t sourceId, const Subject& subject, const wchar_t* level, const wchar_t* before,
                          const wchar_t* text, const wchar_t* after);
    void writeStateLine(Download* source, uint32_t sourceId, const Subject& subject);
    void writeStatusLine(uint64_t value, uint32_t sourceId, const Subject& subject);
    void writeProgressLines(Download* source, uint32_t sourceId);
    void writeTransferSummary(Download* source, uint32_t sourceId);

    // One entry: time stamp and formatted text, written whole under the lock.
    void writeEntry(const wchar_t* format, ...);
    void writeEntryV(const wchar_t* format, va_list args);
    void writeChars(const wchar_t* text, size_t count);

    qv::UniqueFile file_;
    qv::CriticalSection lock_;
    HMODULE resourceModule_ = nullptr; // not owned: the client loaded it and unloads it
};
