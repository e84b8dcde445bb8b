// The client process of the fault-tolerance soak: it runs one download through the public interface
// only (or restores the stored ones in a new process) and prints its progress on standard output.
// It ends itself with TerminateProcess as soon as the file DIE_FILE exists, the same abrupt end as a
// crash or a killed installer; the soak also kills it from outside.
//
//   soak_driver start STORE URL DEST SAVE_INTERVAL DIE_FILE LIMIT_S
//   soak_driver resume STORE DIE_FILE LIMIT_S
//
// Lines: "R <bytes>" after a restore, "P <bytes> <state>" every few milliseconds,
// "KILL <bytes>" just before TerminateProcess, "DONE <state> <status>" at the end (exit code 0 when the
// download completed), "DONE timeout" after LIMIT_S seconds, "DONE none" when there is no download.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "QvDLM.h"

namespace {

constexpr UINT kKilledExitCode = 9;

class EventEcho final : public EventSubscriber {
public:
    void notify(const EventRecord* record) override
    {
        if (record->kind == qvdlm::event::Information && qvdlm::eventValueIsText(record->value))
            std::fprintf(stderr, "E3 %ls\n", reinterpret_cast<const wchar_t*>(record->value));
        else if (record->kind != qvdlm::event::Information)
            std::fprintf(stderr, "E%u %llu\n", record->kind, static_cast<unsigned long long>(record->value));
    }
};

bool exists(const wchar_t* path) { return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES; }

int follow(DownloadMgr* manager, const wchar_t* dieFile, DWORD limitMs)
{
    const ULONGLONG end = GetTickCount64() + limitMs;
    uint64_t lastPrinted = UINT64_MAX;
    unsigned lastState = 0;
    ULONGLONG lastLine = 0;
    while (GetTickCount64() < end) {
        bool allEnded = true;
        Download* last = nullptr;
        uint64_t held = 0;
        for (Download* d : manager->getDownloads()) {
            last = d;
            const unsigned s = d->getState();
            held = d->getDownloadedSize();
            // Quiet while nothing moves, but never silent for long: the soak watches for liveness.
            if (held != lastPrinted || s != lastState || GetTickCount64() - lastLine > 500) {
                std::printf("P %llu %u\n", static_cast<unsigned long long>(held), s);
                lastPrinted = held;
                lastState = s;
                lastLine = GetTickCount64();
            }
            if (s != qvdlm::state::Completed && s != qvdlm::state::Aborted)
                allEnded = false;
        }
        std::fflush(stdout);
        if (!last) {
            std::printf("DONE none\n");
            std::fflush(stdout);
            return 6;
        }
        if (allEnded) {
            std::printf("DONE %u %u\n", last->getState(), last->getStatus());
            std::fflush(stdout);
            return last->getState() == qvdlm::state::Completed ? 0 : 1;
        }
        if (exists(dieFile)) {
            std::printf("KILL %llu\n", static_cast<unsigned long long>(held));
            std::fflush(stdout);
            TerminateProcess(GetCurrentProcess(), kKilledExitCode);
        }
        Sleep(10);
    }
    std::printf("DONE timeout\n");
    std::fflush(stdout);
    return 2;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 5)
        return 3;
    const bool start = std::wcscmp(argv[1], L"start") == 0;
    if (start && argc < 8)
        return 3;
    const wchar_t* dieFile = argv[start ? 6 : 3];
    const DWORD limitMs = static_cast<DWORD>(std::wcstoul(argv[start ? 7 : 4], nullptr, 10) * 1000);
    DownloadRequestLog::getInstance()->open(argv[2]);
    static EventEcho echo;
    EventPublisher::getInstance()->subscribe(&echo);
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    if (!manager)
        return 4;
    if (start) {
        DownloadRequest* request = QvDLM::createDownloadRequest();
        request->setUrl(argv[3], nullptr, nullptr);
        request->setDestDir(argv[4]);
        request->setSaveInterval(std::wcstoull(argv[5], nullptr, 10));
        Download* d = manager->addDownload(request);
        if (!d || !manager->startDownload(d))
            return 5;
    } else {
        manager->beginRestore();
        manager->restore();
        for (Download* d : manager->getDownloads())
            manager->control(d, qvdlm::command::Start);
        manager->endRestore();
        // A download that was paused when its process ended goes on too.
        for (Download* d : manager->getDownloads())
            manager->control(d, qvdlm::command::Resume);
        for (Download* d : manager->getDownloads())
            std::printf("R %llu\n", static_cast<unsigned long long>(d->getDownloadedSize()));
        std::fflush(stdout);
    }
    const int result = follow(manager, dieFile, limitMs);
    QvDLM::destroy(manager);
    return result;
}
