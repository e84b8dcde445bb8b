// The manager of a client's downloads: prepares each request's folders, makes and owns the downloads,
// limits how many run at once, starts queued ones when one completes, restores stored requests, checks
// free disk space and reacts to the status events of its downloads.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

#include "DownloadMgr.h"
#include "common/Win32Raii.h"
#include "control/JobEnvironment.h"

class DownloadMgrImp final : public DownloadMgr {
public:
    explicit DownloadMgrImp(const JobEnvironment& environment);
    ~DownloadMgrImp() override;

    void notify(const EventRecord* record) override;
    void beginRestore() override;
    bool restore() override;
    void endRestore() override;
    Download* addDownload(DownloadRequest* request) override;
    bool startDownload(Download* download) override;
    bool removeDownload(Download* download) override;
    bool control(Download* download, unsigned command) override;
    bool anyRunning() override;
    const DownloadList& getDownloads() override;
    unsigned countInState(unsigned state) override;
    void setMaxActive(int count) override;
    unsigned checkRequest(DownloadRequest* request) override;
    bool hasDownload(const wchar_t* identifier) override;
    bool isEmpty() override;
    unsigned getDefaultDestDir(wchar_t* buffer, int size) override;
    bool setDefaultDestDir(const wchar_t* dir) override;
    unsigned checkDiskSpace(DownloadRequest* request) override;
    void pauseForDiskSpace() override;
    uint64_t getPendingSpace(const wchar_t* path) override;

    // Compares two versions of up to four dot-separated numbers (missing parts count as 0): <0, 0, >0.
    static int compareVersions(const wchar_t* left, const wchar_t* right);
    // Bytes missing on the volume of path to hold need: 0 when there is room, all ones when the volume's
    // root does not exist (a path without a drive letter).
    static uint64_t shortfallOn(const wchar_t* path, uint64_t need);

    // The request version that this library writes and understands.
    static constexpr const wchar_t* kRequestVersion = L"1.2";
    static constexpr uint64_t kAllOnes = ~0ull;

private:
    bool applyCommand(Download* download, unsigned command);
    bool startProcedure(Download* download);
    uint64_t shortfallFor(DownloadRequest* request);
    bool owns(Download* download);
    void publishActiveCount();
    std::wstring storeFile();
    DownloadRequestLog* store() const;

    JobEnvironment env_;
    int maxActive_ = 3;
    std::set<Download*> active_;
    std::atomic<bool> restoring_{false};
    std::atomic<bool> closing_{false}; // being destroyed: events of the downloads change nothing now
    qv::CriticalSection lock_;
    DownloadList downloads_;
};
