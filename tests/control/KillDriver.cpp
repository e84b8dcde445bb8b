// A client of the installed interface only, for the tests that kill a process in the middle of a
// download: it starts one download through the manager (or restores the stored ones) and prints its
// progress on standard output until the download has ended.
//
//   control_kill_driver start STORE URL DEST SAVE_INTERVAL
//   control_kill_driver resume STORE
//
// Lines: "R <bytes>" once a restored download has started (bytes already held), "P <bytes> <state>" every
// few milliseconds, and "DONE <state> <status>" at the end. Exit code 0 when the download completed.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "support/DriverClient.h"

namespace {

constexpr DWORD kLimitMs = 120000;

int follow(DownloadMgr* manager)
{
    const ULONGLONG end = GetTickCount64() + kLimitMs;
    while (GetTickCount64() < end) {
        bool allEnded = true;
        Download* last = nullptr;
        for (Download* d : manager->getDownloads()) {
            last = d;
            const unsigned s = d->getState();
            std::printf("P %llu %u\n", static_cast<unsigned long long>(d->getDownloadedSize()), s);
            if (s != qvdlm::state::Completed && s != qvdlm::state::Aborted)
                allEnded = false;
        }
        std::fflush(stdout);
        if (last && allEnded) {
            std::printf("DONE %u %u\n", last->getState(), last->getStatus());
            std::fflush(stdout);
            return last->getState() == qvdlm::state::Completed ? 0 : 1;
        }
        Sleep(10);
    }
    std::printf("DONE timeout\n");
    return 2;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 3)
        return 3;
    const bool start = std::wcscmp(argv[1], L"start") == 0;
    if (start && argc < 6)
        return 3;
    DownloadRequestLog::getInstance()->open(argv[2]);
    static driver::EventEcho echo;
    EventPublisher::getInstance()->subscribe(&echo);
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    if (!manager)
        return 4;
    if (start) {
        if (!driver::startOne(manager, argv[3], argv[4], argv[5]))
            return 5;
    } else {
        driver::restoreAll(manager);
    }
    const int result = follow(manager);
    QvDLM::destroy(manager);
    return result;
}
