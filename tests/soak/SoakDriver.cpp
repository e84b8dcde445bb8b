// The client process of the fault-tolerance soak: it runs one download through the public interface
// only (or restores the stored ones in a new process) and prints its progress on standard output.
// It ends itself with TerminateProcess as soon as the file DIE_FILE exists, the same abrupt end as a
// crash or a killed installer; the soak also kills it from outside.
//
//   soak_driver start STORE URL DEST SAVE_INTERVAL DIE_FILE LIMIT_S [PROXY_USER PROXY_PASSWORD]
//   soak_driver resume STORE DIE_FILE LIMIT_S
//   soak_driver forget PROXY_HOST
//
// With proxy credentials, "start" first hands them to the proxy lookup, as an installer that asks its
// user up front would; the lookup keeps them in the credential store, where later processes' answers
// to a 407 find them. "forget" removes that stored credential again.
//
// Lines: "R <bytes>" after a restore, "P <bytes> <state>" every few milliseconds,
// "KILL <bytes>" just before TerminateProcess, "DONE <state> <status>" at the end (exit code 0 when the
// download completed), "DONE timeout" after LIMIT_S seconds, "DONE none" when there is no download,
// "DONE proxy <status>" when the proxy lookup did not accept the credentials.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <wincred.h>

#include "support/DriverClient.h"

namespace {

constexpr UINT kKilledExitCode = 9;

std::string utf8(const wchar_t* text)
{
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1)
        return {};
    std::string out(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), length, nullptr, nullptr);
    out.resize(static_cast<size_t>(length - 1));
    return out;
}

// The lookup checks the credentials against the proxy and stores them for the proxy's host.
bool giveProxyCredentials(const wchar_t* url, const wchar_t* user, const wchar_t* password)
{
    const std::string u = utf8(url), name = utf8(user), secret = utf8(password);
    UserData in{u.c_str(), name.c_str(), secret.c_str(), true};
    ProxyInfo out{};
    const unsigned status = qrvlGetProxyInfo(&in, &out);
    const bool ok = status == PM_STATUS_OK && out.authScheme == PROXY_AUTH_BASIC;
    qrvlProxyDeallocate(&out);
    if (!ok) {
        std::printf("DONE proxy %u\n", status);
        std::fflush(stdout);
    }
    return ok;
}

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
    if (argc == 3 && std::wcscmp(argv[1], L"forget") == 0)
        return CredDeleteW(argv[2], CRED_TYPE_GENERIC, 0) || GetLastError() == ERROR_NOT_FOUND ? 0 : 1;
    if (argc < 5)
        return 3;
    const bool start = std::wcscmp(argv[1], L"start") == 0;
    if (start && argc < 8)
        return 3;
    const wchar_t* dieFile = argv[start ? 6 : 3];
    const DWORD limitMs = static_cast<DWORD>(std::wcstoul(argv[start ? 7 : 4], nullptr, 10) * 1000);
    DownloadRequestLog::getInstance()->open(argv[2]);
    static driver::EventEcho echo;
    EventPublisher::getInstance()->subscribe(&echo);
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    if (!manager)
        return 4;
    if (start && argc >= 10 && !giveProxyCredentials(argv[3], argv[8], argv[9]))
        return 7;
    if (start) {
        if (!driver::startOne(manager, argv[3], argv[4], argv[5]))
            return 5;
    } else {
        driver::restoreAll(manager);
    }
    const int result = follow(manager, dieFile, limitMs);
    QvDLM::destroy(manager);
    return result;
}
