// The request store: one UTF-16 INI file ("download.info") with a section per request, read and written
// only through the private-profile functions. It keeps no cache: the file is the state. A writer that
// dies in the middle of an operation loses that operation only (StoreBackup).
#pragma once

#include <cstdint>
#include <string>

#include "DownloadRequestLog.h"
#include "common/Win32Raii.h"

class DownloadRequestLogImp final : public DownloadRequestLog {
public:
    // Characters read for one value at first; the buffer doubles until the value fits, up to the limit.
    static constexpr unsigned kValueBufferSize = 4096;
    static constexpr unsigned kValueLimit = 1u << 24;
    // Block numbers in names have three digits; a stored BLOCK_COUNT outside 1..999 is damage.
    static constexpr int32_t kMaxStoredBlocks = 999;
    // Characters of the section-name list at first, and at most.
    static constexpr unsigned kSectionNamesInitial = 1024;
    static constexpr unsigned kSectionNamesLimit = 1u << 22;

    DownloadRequestLogImp() = default;
    ~DownloadRequestLogImp() override = default;
    DownloadRequestLogImp(const DownloadRequestLogImp&) = delete;
    DownloadRequestLogImp& operator=(const DownloadRequestLogImp&) = delete;

    bool open(const wchar_t* path) override;
    bool add(DownloadRequest* request) override;
    bool remove(const wchar_t* section) override;
    bool exists(const wchar_t* section) override;
    bool load(const wchar_t* section, DownloadRequest* request) override;
    bool loadAll(DownloadRequestSet& requests) override;
    bool saveLaunch(DownloadRequest* request) override;
    bool saveDestDir(DownloadRequest* request) override;
    bool saveState(DownloadRequest* request, uint32_t state) override;
    bool saveProgress(DownloadRequest* request, uint32_t state, uint32_t checkpointId) override;
    bool saveUseAkamai(DownloadRequest* request) override;
    const wchar_t* getPath() override;

private:
    bool ensureFile();
    bool accepts(DownloadRequest* request) const;
    void write(const wchar_t* section, const wchar_t* key, const wchar_t* value);
    void write(const wchar_t* section, const wchar_t* key, const std::wstring& value);
    void writeStoredState(DownloadRequest* request, uint32_t state);
    // Reads a whole value (false when the key is absent).
    bool read(const wchar_t* section, const wchar_t* key, std::wstring& value);
    bool loadBody(const wchar_t* section, DownloadRequest* request);

    std::wstring path_;
    // One write operation at a time, each with its backup of the file (StoreBackup).
    qv::CriticalSection lock_;
};
