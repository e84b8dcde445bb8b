// The client process of the soak and the kill test: one download through the public interface only (or the
// stored ones restored in a new process), its progress on standard output. It ends itself with TerminateProcess
// (a crash, a killed installer) once the file DIE exists, or once it holds N bytes when DIE is "@N"; with "!T" it stops
// the download T ms after it began, keeping its progress (as Ctrl+C in a client would), and ends once it no longer runs.
//   soak_driver start STORE URL DEST SAVE_INTERVAL DIE LIMIT_S [PROXY_USER PROXY_PASSWORD]
//   soak_driver resume STORE DIE LIMIT_S  |  soak_driver forget PROXY_HOST
// "start" hands proxy credentials to the proxy lookup first, which keeps them in the credential store for
// later processes' answers to a 407; "forget" removes them. Lines: "R <bytes>" after a restore, "P <bytes>
// <state>" when something moved (at least twice a second), "KILL <bytes>" before TerminateProcess, "STOP <bytes>"
// and "MS <milliseconds the stop took>" after a stop (exit code 8), and at the end "DONE <state> <status>" (all
// completed, aborted or paused for disk space; exit code 0 when completed), "DONE timeout", "DONE none" (no
// download) or "DONE proxy <status>" (the lookup refused the credentials).
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <wincred.h>

#include "support/DriverClient.h"

namespace {

std::string utf8(const wchar_t* text)
{
    char out[2048] = {};
    WideCharToMultiByte(CP_UTF8, 0, text, -1, out, sizeof(out) - 1, nullptr, nullptr);
    return out;
}

int done(const char* text, int code) { return std::printf("DONE %s\n", text), std::fflush(stdout), code; }

int follow(DownloadMgr* manager, const wchar_t* die, DWORD limitMs)
{
    const bool stop = die[0] == L'!';
    const uint64_t killAt = die[0] == L'@' ? std::wcstoull(die + 1, nullptr, 10) : UINT64_MAX;
    const ULONGLONG stopAt = GetTickCount64() + (stop ? std::wcstoull(die + 1, nullptr, 10) : 0);
    uint64_t lastHeld = UINT64_MAX, lastLine = 0;
    unsigned lastState = 0;
    for (const ULONGLONG end = GetTickCount64() + limitMs; GetTickCount64() < end; Sleep(10)) {
        Download* last = nullptr;
        uint64_t held = 0;
        bool ended = true;
        for (Download* d : manager->getDownloads()) {
            const unsigned s = d->getState();
            last = d, held = d->getDownloadedSize();
            if (held != lastHeld || s != lastState || GetTickCount64() - lastLine > 500) {
                std::printf("P %llu %u\n", static_cast<unsigned long long>(held), s);
                lastHeld = held, lastState = s, lastLine = GetTickCount64();
            }
            ended = ended && (s == qvdlm::state::Completed || s == qvdlm::state::Aborted ||
                              (s == qvdlm::state::Paused && d->getStatus() == qvdlm::status::OutOfDiskSpace));
        }
        std::fflush(stdout);
        if (!last)
            return done("none", 6);
        if (ended)
            return done((std::to_string(last->getState()) + " " + std::to_string(last->getStatus())).c_str(),
                        last->getState() == qvdlm::state::Completed ? 0 : 1);
        if (stop && GetTickCount64() >= stopAt) {
            const ULONGLONG begun = GetTickCount64();
            manager->control(last, qvdlm::command::StopKeep);
            while (manager->anyRunning() && GetTickCount64() - begun < 30000)
                Sleep(1);
            std::printf("STOP %llu\nMS %llu\n", static_cast<unsigned long long>(held), GetTickCount64() - begun);
            return done("stopped", 8);
        }
        if (held >= killAt || (killAt == UINT64_MAX && !stop && GetFileAttributesW(die) != INVALID_FILE_ATTRIBUTES))
            std::printf("KILL %llu\n", static_cast<unsigned long long>(held)), std::fflush(stdout), TerminateProcess(GetCurrentProcess(), 9);
    }
    return done("timeout", 2);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc == 3 && std::wcscmp(argv[1], L"forget") == 0)
        return CredDeleteW(argv[2], CRED_TYPE_GENERIC, 0) || GetLastError() == ERROR_NOT_FOUND ? 0 : 1;
    const bool start = argc >= 8 && std::wcscmp(argv[1], L"start") == 0;
    if (!start && argc != 5)
        return 3;
    DownloadRequestLog::getInstance()->open(argv[2]);
    static driver::EventEcho echo;
    EventPublisher::getInstance()->subscribe(&echo);
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    if (!manager)
        return 4;
    if (start && argc >= 10) {
        const std::string url = utf8(argv[3]), user = utf8(argv[8]), password = utf8(argv[9]);
        UserData in{url.c_str(), user.c_str(), password.c_str(), true};
        ProxyInfo out{};
        const unsigned status = qrvlGetProxyInfo(&in, &out);
        const bool basic = out.authScheme == PROXY_AUTH_BASIC;
        qrvlProxyDeallocate(&out);
        if (status != PM_STATUS_OK || !basic)
            return done(("proxy " + std::to_string(status)).c_str(), 7);
    }
    if (start && !driver::startOne(manager, argv[3], argv[4], argv[5]))
        return 5;
    if (!start)
        driver::restoreAll(manager);
    const int result = follow(manager, argv[start ? 6 : 3], static_cast<DWORD>(std::wcstoul(argv[start ? 7 : 4], nullptr, 10) * 1000));
    QvDLM::destroy(manager);
    return result;
}
