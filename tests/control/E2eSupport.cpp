#include <gtest/gtest.h>

#include "E2eSupport.h"

namespace e2e {

std::wstring servedFolder()
{
    std::wstring root = qvtest::env(L"QVDLM_TEST_WORK");
    if (!root.empty() && root[0] == L'/') {
        root = L"Z:" + root;
        for (auto& c : root)
            if (c == L'/')
                c = L'\\';
    }
    return root + L"\\www-control";
}

std::wstring serverUrl(const std::wstring& path)
{
    return L"http://localhost:" + std::to_wstring(qvtest::port(5)) + L"/" + path;
}

std::wstring longPath(const std::wstring& path)
{
    if (path.size() < 248 || path.rfind(L"\\\\?\\", 0) == 0)
        return path;
    return L"\\\\?\\" + path;
}

bool sameFile(const std::wstring& expected, const std::wstring& actual)
{
    std::string a, b;
    return qvtest::readFile(longPath(expected), a) && qvtest::readFile(longPath(actual), b) && a == b;
}

::testing::AssertionResult sameTree(const std::wstring& expected, const std::wstring& actual)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(longPath(expected + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return ::testing::AssertionFailure() << "cannot list " << qvtest::narrow(expected);
    int files = 0;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            auto inner = sameTree(expected + L"\\" + name, actual + L"\\" + name);
            if (!inner) {
                FindClose(find);
                return inner;
            }
        } else if (!sameFile(expected + L"\\" + name, actual + L"\\" + name)) {
            FindClose(find);
            return ::testing::AssertionFailure() << "differs: " << qvtest::narrow(actual + L"\\" + name);
        }
        ++files;
    } while (FindNextFileW(find, &data));
    FindClose(find);
    return ::testing::AssertionSuccess() << files << " entries";
}

std::vector<std::wstring> entriesStartingWith(const std::wstring& folder, const std::wstring& prefix)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(longPath(folder + L"\\" + prefix + L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return names;
    do
        names.push_back(data.cFileName);
    while (FindNextFileW(find, &data));
    FindClose(find);
    return names;
}

bool waitFor(const std::function<bool()>& done, DWORD timeoutMs)
{
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    while (!done()) {
        if (GetTickCount64() > end)
            return done();
        Sleep(10);
    }
    return true;
}

void StateLog::notify(const EventRecord* record)
{
    if (record->kind != qvdlm::event::StateChange)
        return;
    EnterCriticalSection(&lock_);
    changes_.emplace_back(record->source, static_cast<unsigned>(record->value));
    LeaveCriticalSection(&lock_);
}

int StateLog::indexOf(Download* d, unsigned state)
{
    EnterCriticalSection(&lock_);
    int found = -1;
    for (size_t i = 0; i < changes_.size() && found < 0; ++i)
        if (changes_[i].first == d && changes_[i].second == state)
            found = static_cast<int>(i);
    LeaveCriticalSection(&lock_);
    return found;
}

ChildProcess::ChildProcess(const std::wstring& commandLine)
{
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE write = nullptr;
    if (!CreatePipe(&output_, &write, &inherit, 0))
        return;
    SetHandleInformation(output_, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    startup.hStdError = write;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    PROCESS_INFORMATION info{};
    std::wstring line = commandLine;
    if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info)) {
        process_ = info.hProcess;
        CloseHandle(info.hThread);
    }
    CloseHandle(write);
}

ChildProcess::~ChildProcess()
{
    if (process_) {
        if (WaitForSingleObject(process_, 0) == WAIT_TIMEOUT)
            TerminateProcess(process_, 9);
        WaitForSingleObject(process_, 10000);
        CloseHandle(process_);
    }
    if (output_)
        CloseHandle(output_);
}

bool ChildProcess::readLine(std::string& line, DWORD timeoutMs)
{
    const ULONGLONG end = GetTickCount64() + timeoutMs;
    for (;;) {
        const size_t newline = pending_.find('\n');
        if (newline != std::string::npos) {
            line = pending_.substr(0, newline);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            pending_.erase(0, newline + 1);
            return true;
        }
        DWORD available = 0;
        if (!PeekNamedPipe(output_, nullptr, 0, nullptr, &available, nullptr))
            return false; // the writer has gone
        if (available) {
            char buffer[4096];
            DWORD got = 0;
            if (!ReadFile(output_, buffer, std::min<DWORD>(available, sizeof(buffer)), &got, nullptr) || got == 0)
                return false;
            pending_.append(buffer, got);
            continue;
        }
        if (GetTickCount64() > end)
            return false;
        Sleep(5);
    }
}

void ChildProcess::kill()
{
    if (process_) {
        TerminateProcess(process_, 9);
        WaitForSingleObject(process_, 10000);
    }
}

DWORD ChildProcess::wait(DWORD timeoutMs)
{
    DWORD code = 0xFFFFFFFF;
    if (process_ && WaitForSingleObject(process_, timeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(process_, &code);
    return code;
}

std::wstring driverPath()
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path = self;
    return path.substr(0, path.find_last_of(L'\\') + 1) + L"control_kill_driver.exe";
}

} // namespace e2e
