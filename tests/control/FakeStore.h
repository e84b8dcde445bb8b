// An in-memory request store that keeps what the job and the manager persist, with the store's rules
// for states that are never stored and for the progress reset of an abort.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "DownloadRequestLog.h"
#include "support/FakeRequest.h"
#include "QvDLMCodes.h"
#include "common/Win32Raii.h"

struct StoredRequest {
    std::wstring url, version = L"1.2", destDir, checkpointDir, date, exePath, exeParam;
    bool autoOpen = false;
    uint32_t state = qvdlm::state::Pending;
    uint32_t checkpointId = 0;
    int32_t blockId = 0;
    uint64_t blockDownloaded = 0, totalDownloaded = 0, extracted = 0, uncompressed = 0, saveInterval = 734003200;
};

class FakeStore final : public DownloadRequestLog {
public:
    FakeStore() = default;
    ~FakeStore() override = default;

    bool open(const wchar_t* path) override
    {
        if (path)
            path_ = path;
        return !path_.empty();
    }
    bool add(DownloadRequest* r) override
    {
        qv::CsLock hold(lock_);
        if (existsLocked(r->getId()))
            return true;
        StoredRequest s;
        s.url = r->getOriginalUrl();
        s.version = r->getVersion();
        s.destDir = r->getDestDir();
        s.checkpointDir = r->getCheckpointDir();
        s.state = r->getState();
        s.checkpointId = r->getCheckpointId();
        s.blockId = r->getBlockId();
        s.blockDownloaded = r->getBlockDownloadedSize();
        s.totalDownloaded = r->getTotalDownloadedSize() + r->getBlockDownloadedSize();
        s.extracted = r->getExtractedSize();
        s.uncompressed = r->getUncompressedSize();
        s.saveInterval = r->getSaveInterval();
        records_[r->getId()] = s;
        ++adds;
        return true;
    }
    bool remove(const wchar_t* section) override
    {
        qv::CsLock hold(lock_);
        removed.push_back(section);
        records_.erase(section);
        return true;
    }
    bool exists(const wchar_t* section) override
    {
        qv::CsLock hold(lock_);
        return existsLocked(section);
    }
    bool load(const wchar_t* section, DownloadRequest* r) override
    {
        qv::CsLock hold(lock_);
        auto it = records_.find(section);
        if (it == records_.end())
            return false;
        fill(it->second, r);
        return true;
    }
    bool loadAll(DownloadRequestSet& requests) override
    {
        qv::CsLock hold(lock_);
        for (auto& [id, s] : records_) {
            auto* r = new FakeRequest(s.url);
            fill(s, r);
            requests.insert(r);
        }
        return true;
    }
    bool saveLaunch(DownloadRequest* r) override
    {
        qv::CsLock hold(lock_);
        auto& s = records_[r->getId()];
        s.exePath = r->getExePath();
        s.exeParam = r->getExeParam();
        s.autoOpen = r->getAutoOpen();
        ++launchSaves;
        return true;
    }
    bool saveDestDir(DownloadRequest* r) override
    {
        qv::CsLock hold(lock_);
        records_[r->getId()].destDir = r->getDestDir();
        return true;
    }
    bool saveState(DownloadRequest* r, uint32_t state) override
    {
        using namespace qvdlm;
        qv::CsLock hold(lock_);
        stateSaves.push_back(state);
        auto it = records_.find(r->getId());
        if (it == records_.end())
            return true;
        auto& s = it->second;
        if (state != state::Init && state != state::Exiting)
            s.state = state;
        if (state == state::Aborting) {
            s.blockId = 0;
            s.blockDownloaded = s.totalDownloaded = s.extracted = 0;
            s.checkpointId = 0;
        }
        if (state == state::Completed)
            s.date = r->getDate();
        return true;
    }
    bool saveProgress(DownloadRequest* r, uint32_t state, uint32_t checkpointId) override
    {
        using namespace qvdlm;
        qv::CsLock hold(lock_);
        progressSaves.push_back(checkpointId);
        if (state == state::Aborting)
            return true;
        auto it = records_.find(r->getId());
        if (it == records_.end())
            return true;
        auto& s = it->second;
        s.blockId = r->getBlockId();
        s.blockDownloaded = r->getBlockDownloadedSize();
        s.totalDownloaded = r->getTotalDownloadedSize();
        s.extracted = r->getExtractedSize();
        s.checkpointId = checkpointId;
        if (state != state::Init && state != state::Exiting)
            s.state = state;
        return true;
    }
    bool saveUseAkamai(DownloadRequest*) override
    {
        ++akamaiSaves;
        return true;
    }
    const wchar_t* getPath() override { return path_.c_str(); }

    StoredRequest record(const std::wstring& id)
    {
        qv::CsLock hold(lock_);
        return records_[id];
    }
    void put(const std::wstring& id, const StoredRequest& s)
    {
        qv::CsLock hold(lock_);
        records_[id] = s;
    }
    size_t size()
    {
        qv::CsLock hold(lock_);
        return records_.size();
    }

    int adds = 0, launchSaves = 0, akamaiSaves = 0;
    std::vector<uint32_t> stateSaves, progressSaves;
    std::vector<std::wstring> removed;

private:
    bool existsLocked(const wchar_t* section)
    {
        auto it = records_.find(section ? section : L"");
        return it != records_.end() && !it->second.destDir.empty();
    }
    static void fill(const StoredRequest& s, DownloadRequest* r)
    {
        r->setVersion(s.version.c_str());
        r->setState(s.state);
        r->setDestDir(s.destDir.c_str());
        r->setCheckpointDir(s.checkpointDir.c_str());
        r->setCheckpointId(s.checkpointId);
        r->setBlockDownloadedSize(s.blockDownloaded);
        r->setTotalDownloadedSize(s.totalDownloaded);
        r->setExtractedSize(s.extracted);
        r->setUncompressedSize(s.uncompressed);
        r->setSaveInterval(s.saveInterval);
        r->setBlockId(s.blockId);
    }

    qv::CriticalSection lock_;
    std::wstring path_;
    std::map<std::wstring, StoredRequest> records_;
};
