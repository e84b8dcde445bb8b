#include "StartAkamai.h"

#include <windows.h>
#include <shellapi.h>

#include <cwchar>
#include <string>

#include "common/Win32Raii.h"
#include "net/NetSession.h"

namespace {

constexpr const char* kStarterApplication = "QvDLMgr";
constexpr const wchar_t* kInstallerName = L"NSSetup.exe";
constexpr int kStartAttempts = 10;
constexpr DWORD kStartRetryMs = 500;
constexpr DWORD kLongestPath = 32768;

// Full path of the host program (not of this library), or empty with the system error in error.
std::wstring hostProgramPath(DWORD& error)
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) {
            error = GetLastError();
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        if (path.size() >= kLongestPath) {
            error = ERROR_INSUFFICIENT_BUFFER;
            return {};
        }
        path.resize(path.size() * 2);
    }
}

// Runs the client's installer from the host program's folder and waits for it to end.
void runInstaller()
{
    DWORD error = 0;
    std::wstring path = hostProgramPath(error);
    if (path.empty()) {
        wchar_t line[64];
        std::swprintf(line, std::size(line), L"Cannot get module name(%d)\n", static_cast<int>(error));
        OutputDebugStringW(line);
        return;
    }
    const size_t slash = path.find_last_of(L'\\');
    path.erase(slash == std::wstring::npos ? 0 : slash);
    path += L'\\';
    path += kInstallerName;

    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY))
        return;
    SHELLEXECUTEINFOW run{};
    run.cbSize = sizeof run;
    run.fMask = SEE_MASK_NOCLOSEPROCESS;
    run.lpFile = path.c_str();
    run.nShow = SW_SHOWNORMAL;
    if (!ShellExecuteExW(&run))
        return;
    qv::UniqueHandle installer(run.hProcess);
    if (installer)
        WaitForSingleObject(installer.get(), INFINITE);
}

} // namespace

bool StartAkamai()
{
    std::unique_ptr<qv::NetSession> session = qv::NetSession::create(kStarterApplication, nullptr, nullptr);
    if (!session)
        return false;
    // A running client is left with its session, which keeps it serving for the rest of the process.
    if (session->getLastError() == 0) {
        session->keepAlive();
        return true;
    }
    if (session->needsInstall() != 0)
        runInstaller();
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        session.reset();
        session = qv::NetSession::create(kStarterApplication, nullptr, nullptr);
        if (session && session->getLastError() == 0) {
            session->keepAlive();
            return true;
        }
        Sleep(kStartRetryMs);
    }
    return false;
}
