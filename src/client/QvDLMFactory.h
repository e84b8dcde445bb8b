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
    // An empty request; null when memory is exhausted.
    static DownloadRequest* createDownloadRequest();

    // A null argument is ignored.
    static void destroy(Log* log);
    static void destroy(DownloadMgr* manager);
    static void destroy(Download* download);
    static void destroy(DownloadRequest* request);

    QvDLM& operator=(const QvDLM&) = default;
};
