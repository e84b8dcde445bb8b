// Downloads one package or file with QvDLM and prints what the library reports.
// Usage: quickstart URL DEST-FOLDER
#include <windows.h>

#include <QvDLM.h>

#include <cstdio>

// Hears every event of the library, on whichever thread publishes it.
class Printer : public EventSubscriber {
public:
    void notify(const EventRecord* event) override
    {
        if (event->kind == qvdlm::event::StateChange && event->source)
            std::printf("state: %ls\n", qvdlm::stateName(static_cast<uint32_t>(event->value)));
        else if (event->kind == qvdlm::event::StatusMessage)
            std::printf("status: %ls\n", qvdlm::messageText(static_cast<uint32_t>(event->value)));
    }
};

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: quickstart URL DEST-FOLDER\n");
        return 2;
    }
    LoadLibraryW(L"QvDLMRes.dll"); // a log opens only while the resource module is loaded
    Log* log = QvDLM::createLog(L"quickstart.log");
    Printer printer;
    EventPublisher::getInstance()->subscribe(&printer);

    DownloadMgr* manager = QvDLM::createDownloadMgr();
    DownloadRequest* request = QvDLM::createDownloadRequest();
    request->setUrl(argv[1], nullptr, nullptr);
    request->setName(L"quickstart");
    request->setDestDir(argv[2]);
    Download* download = manager->addDownload(request); // owns the request from now on

    bool started = download && manager->startDownload(download);
    for (int i = 0; started && i < 6000 && download->isRunning(); ++i) { // at most ten minutes
        if (i % 10 == 0)
            std::printf("%llu bytes\n", static_cast<unsigned long long>(download->getDownloadedSize()));
        Sleep(100);
    }
    const bool completed = download && download->getState() == qvdlm::state::Completed;
    if (!completed && download)
        std::printf("ended as %ls, status 0x%08x\n", qvdlm::stateName(download->getState()), download->getStatus());

    QvDLM::destroy(manager); // and with it its downloads and their requests
    EventPublisher::getInstance()->unsubscribe(&printer);
    QvDLM::destroy(log);
    return completed ? 0 : 1;
}
