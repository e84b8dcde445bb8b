// A client that stores one request and then records progress for it without pause, until it is killed:
// the store kill test ends it at random moments, in the middle of a write.
//
//   request_store_writer STORE READY_FILE
#include <windows.h>

#include <cstdio>

#include "QvDLM.h"

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3)
        return 3;
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    if (!store->open(argv[1]))
        return 4;
    DownloadRequest* request = QvDLM::createDownloadRequest();
    request->setUrl(L"http://localhost/store-kill/pkg_001_004.tar.lzma2", nullptr, nullptr);
    request->setDestDir(L"C:\\store-kill");
    request->setName(L"store-kill");
    store->add(request);
    FILE* ready = _wfopen(argv[2], L"wb");
    if (!ready)
        return 5;
    std::fclose(ready);
    // Bounded: the test kills this long before the end.
    for (uint32_t id = 1; id < 1000000; ++id) {
        request->setBlockDownloadedSize(id * 4096ull);
        store->saveProgress(request, qvdlm::state::Play, id);
    }
    QvDLM::destroy(request);
    return 0;
}
