// The factory through which clients make and release every library object, so that allocation and
// release both happen inside the library.
#pragma once

#include "QvDLMExport.h"

class Download;
class DownloadMgr;
class DownloadRequest;
class Log;

class QVDLM_API QvDLM {
public:
    // A log subscribed to the library's events, writing to path (a fresh temporary file when null);
    // null when the file cannot be opened or QvDLMRes.dll is not loaded in the process.
    static Log* createLog(const wchar_t* path);
    // An empty request; null when memory is exhausted.
    static DownloadRequest* createDownloadRequest();
    // Makes the manager of downloads, or null when memory is exhausted.
    static DownloadMgr* createDownloadMgr();
    // Makes a download that owns request; mgr is the manager that drives it (may be null).
    static Download* createDownload(DownloadRequest* request, DownloadMgr* mgr);

    // A null argument is ignored.
    static void destroy(Log* log);
    static void destroy(DownloadMgr* manager);
    static void destroy(Download* download);
    static void destroy(DownloadRequest* request);

    QvDLM& operator=(const QvDLM&) = default;
};
