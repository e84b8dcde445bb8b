// The persistent store of requests and their progress ("download.info", UTF-16 INI).
#pragma once

#include <cstdint>
#include <set>

#include "DownloadRequest.h"
#include "QvDLMExport.h"

// Requests loaded from the store, ordered by address; the caller owns them.
using DownloadRequestSet = std::set<DownloadRequest*>;

// Walks a copy of a request set in order; does not own the requests.
class DownloadRequestIterator {
public:
    explicit DownloadRequestIterator(const DownloadRequestSet& requests)
        : requests_(requests), position_(requests_.begin()) {}
    virtual ~DownloadRequestIterator() = default;
    virtual bool hasNext() { return position_ != requests_.end(); }
    virtual DownloadRequest* next() { return position_ == requests_.end() ? nullptr : *position_++; }

    DownloadRequestIterator(const DownloadRequestIterator&) = delete;
    DownloadRequestIterator& operator=(const DownloadRequestIterator&) = delete;

private:
    DownloadRequestSet requests_;
    DownloadRequestSet::const_iterator position_;
};

class QVDLM_API DownloadRequestLog {
public:
    static DownloadRequestLog* getInstance();

    virtual bool open(const wchar_t* path) = 0;
    virtual bool add(DownloadRequest* request) = 0;
    virtual bool remove(const wchar_t* section) = 0;
    virtual bool exists(const wchar_t* section) = 0;
    virtual bool load(const wchar_t* section, DownloadRequest* request) = 0;
    virtual bool loadAll(DownloadRequestSet& requests) = 0;
    virtual bool saveLaunch(DownloadRequest* request) = 0;
    virtual bool saveDestDir(DownloadRequest* request) = 0;
    virtual bool saveState(DownloadRequest* request, uint32_t state) = 0;
    virtual bool saveProgress(DownloadRequest* request, uint32_t state, uint32_t checkpointId) = 0;
    virtual bool saveUseAkamai(DownloadRequest* request) = 0;
    virtual const wchar_t* getPath() = 0;

    DownloadRequestLog(const DownloadRequestLog&) = default;
    DownloadRequestLog& operator=(const DownloadRequestLog&) = default;

protected:
    DownloadRequestLog() = default;
    virtual ~DownloadRequestLog() = default;
};
