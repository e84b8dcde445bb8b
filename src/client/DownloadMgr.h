// The manager of all downloads: adds, starts, limits, pauses, restores and removes them.
#pragma once

#include <cstdint>
#include <list>

#include "EventSubscriber.h"
#include "QvDLMExport.h"

class Download;
class DownloadRequest;

using DownloadList = std::list<Download*>;

class QVDLM_API DownloadMgr : public EventSubscriber {
public:
    virtual void beginRestore() = 0;
    virtual bool restore() = 0;
    virtual void endRestore() = 0;
    virtual Download* addDownload(DownloadRequest* request) = 0;
    virtual bool startDownload(Download* download) = 0;
    virtual bool removeDownload(Download* download) = 0;
    virtual bool control(Download* download, unsigned command) = 0;
    virtual bool anyRunning() = 0;
    virtual const DownloadList& getDownloads() = 0;
    virtual unsigned countInState(unsigned state) = 0;
    virtual void setMaxActive(int count) = 0;
    virtual unsigned checkRequest(DownloadRequest* request) = 0;
    virtual bool hasDownload(const wchar_t* identifier) = 0;
    virtual bool isEmpty() = 0;
    virtual unsigned getDefaultDestDir(wchar_t* buffer, int size) = 0;
    virtual bool setDefaultDestDir(const wchar_t* dir) = 0;
    virtual unsigned checkDiskSpace(DownloadRequest* request) = 0;
    virtual void pauseForDiskSpace() = 0;
    virtual uint64_t getPendingSpace(const wchar_t* path) = 0;

    DownloadMgr(const DownloadMgr&) = default;
    DownloadMgr& operator=(const DownloadMgr&) = default;

protected:
    friend class QvDLM;
    DownloadMgr() = default;
    virtual ~DownloadMgr() = default;
};
