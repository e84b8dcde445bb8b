#include "control/LaunchSettings.h"

#include <windows.h>

#include <cwctype>
#include <vector>

#include "DownloadRequest.h"
#include "DownloadRequestLog.h"
#include "common/Win32Raii.h"
#include "control/FolderOps.h"

namespace qv {

namespace {

constexpr wchar_t kLaunchFile[] = L"dlm.ini";
constexpr wchar_t kSection[] = L"DLM_LAUNCH";
constexpr DWORD kValueLength = 4096;

std::wstring readValue(const std::wstring& file, const wchar_t* key)
{
    std::vector<wchar_t> buffer(kValueLength + 1, L'\0');
    const DWORD n = GetPrivateProfileStringW(kSection, key, L"0", buffer.data(), kValueLength, file.c_str());
    return std::wstring(buffer.data(), n);
}

bool containsUrlSwitch(const wchar_t* parameters)
{
    std::wstring lower = parameters ? parameters : L"";
    for (auto& c : lower)
        c = static_cast<wchar_t>(std::towlower(c));
    return lower.find(L"/url") != std::wstring::npos;
}

} // namespace

std::wstring findLaunchFile(const std::wstring& folder)
{
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW(longForm(folder + L"\\*").c_str(), &data));
    if (!find)
        return {};
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        const std::wstring path = folder + L"\\" + name;
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            if (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)
                continue; // links may lead out of the package
            std::wstring found = findLaunchFile(path);
            if (!found.empty())
                return found;
        } else if (_wcsicmp(name.c_str(), kLaunchFile) == 0) {
            return path;
        }
    } while (FindNextFileW(find.get(), &data));
    return {};
}

bool applyLaunchSettings(DownloadRequest* request, DownloadRequestLog* store)
{
    if (!request || !request->getDestDir())
        return false;
    const std::wstring file = findLaunchFile(request->getDestDir());
    if (file.empty())
        return false;

    const std::wstring exePath = readValue(file, L"EXE_PATH");
    if (!exePath.empty())
        request->setExePath(exePath.c_str());
    const std::wstring exeParam = readValue(file, L"EXE_PARAM");
    if (!exeParam.empty())
        request->setExeParam(exeParam.c_str());

    // Parameters that open a web address always launch on their own.
    if (containsUrlSwitch(request->getExeParam()))
        request->setAutoOpen(true);
    else
        request->setAutoOpen(readValue(file, L"AUTO_OPEN") == L"1");

    if (store)
        store->saveLaunch(request);
    return true;
}

} // namespace qv
