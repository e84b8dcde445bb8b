#include "E2eSupport.h"

namespace e2e {

std::wstring servedFolder() { return qvtest::wwwDir() + L"\\control"; }
std::wstring serverUrl(const std::wstring& path) { return qvtest::faultUrl(L"file/control/" + path); }

static std::wstring longPath(const std::wstring& path) { return path.size() < 248 ? path : L"\\\\?\\" + path; }

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
    ::testing::AssertionResult result = ::testing::AssertionSuccess();
    do {
        const std::wstring name = data.cFileName, a = expected + L"\\" + name, b = actual + L"\\" + name;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            result = name == L"." || name == L".." ? result : sameTree(a, b);
        else if (!sameFile(a, b))
            result = ::testing::AssertionFailure() << "differs: " << qvtest::narrow(b);
    } while (result && FindNextFileW(find, &data));
    FindClose(find);
    return result;
}

bool hasEntry(const std::wstring& folder, const std::wstring& prefix)
{
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(longPath(folder + L"\\" + prefix + L"*").c_str(), &data);
    return find != INVALID_HANDLE_VALUE && FindClose(find);
}

bool waitFor(const std::function<bool()>& done, DWORD timeoutMs)
{
    for (const ULONGLONG end = GetTickCount64() + timeoutMs; !done(); Sleep(10))
        if (GetTickCount64() > end)
            return done();
    return true;
}

} // namespace e2e
