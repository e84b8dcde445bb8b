#include "stream/PathUtil.h"

#include <windows.h>

#include <cerrno>
#include <shlwapi.h>
#include <versionhelpers.h>

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "common/Win32Raii.h"

namespace qv {

namespace {

constexpr size_t kLongPrefixLength = 4;   // "\\?\"
constexpr size_t kLongUncPrefixLength = 8; // "\\?\UNC\"
// A chain of substituted drives can hold at most one link per letter.
constexpr int kMaxSubstitutions = 26;

bool startsWith(const std::wstring& text, const wchar_t* prefix)
{
    return text.compare(0, std::wcslen(prefix), prefix) == 0;
}

bool isDriveLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

bool fullPathName(std::wstring& path)
{
    const DWORD needed = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (needed == 0)
        return false;
    std::wstring full(static_cast<size_t>(needed) + 1, L'\0');
    const DWORD written = GetFullPathNameW(path.c_str(), needed + 1, full.data(), nullptr);
    if (written == 0 || written > needed)
        return false;
    full.resize(written);
    path.swap(full);
    return true;
}

// The target a drive letter is substituted to, without "\??\"; false for a real drive.
bool substitutedTarget(wchar_t letter, std::wstring& target)
{
    const wchar_t device[3] = {static_cast<wchar_t>(std::towupper(letter)), L':', L'\0'};
    // Almost every answer fits a small buffer; only a longer one needs the largest.
    constexpr DWORD kSmall = 1024;
    wchar_t small[kSmall];
    const wchar_t* answer = small;
    std::wstring large;
    DWORD n = QueryDosDeviceW(device, small, kSmall);
    if (n == 0 && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        large.resize(kMaxLongPath);
        n = QueryDosDeviceW(device, large.data(), static_cast<DWORD>(large.size() - 1));
        answer = large.c_str();
    }
    if (n == 0)
        return false;
    target = answer; // the answer is a list; its first entry is the current mapping
    if (!startsWith(target, kSubstTargetPrefix))
        return false;
    target.erase(0, std::wcslen(kSubstTargetPrefix));
    return true;
}

// "\\?\C:" and "\\?\UNC\server\share" (and their short forms) cannot be created, only found.
bool isVolumeRoot(const std::wstring& path)
{
    std::wstring rest = path;
    if (startsWith(rest, kLongUncPrefix)) {
        rest.erase(0, kLongUncPrefixLength);
        const size_t server = rest.find(kPathSeparator);
        return server == std::wstring::npos || rest.find(kPathSeparator, server + 1) == std::wstring::npos;
    }
    if (startsWith(rest, kLongPathPrefix))
        rest.erase(0, kLongPrefixLength);
    else if (startsWith(rest, L"\\\\")) {
        rest.erase(0, 2);
        const size_t server = rest.find(kPathSeparator);
        return server == std::wstring::npos || rest.find(kPathSeparator, server + 1) == std::wstring::npos;
    }
    return rest.size() == 2 && isDriveLetter(rest[0]) && rest[1] == L':';
}

bool createFolder(const std::wstring& folder)
{
    if (CreateDirectoryW(folder.c_str(), nullptr))
        return true;
    if (GetLastError() == kErrorAlreadyExists) {
        SetLastError(0);
        return true;
    }
    return false;
}

bool directoryEntryExists(const std::wstring& path)
{
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW(path.c_str(), &data));
    return find.valid();
}

unsigned char __stdcall copyInsteadOfLink(const wchar_t* linkPath, const wchar_t* targetPath, unsigned long)
{
    return CopyFileW(targetPath, linkPath, FALSE) ? 1 : 0;
}

std::atomic<SymbolicLinkOperation> g_symbolicLink{nullptr};
std::atomic<bool> g_symbolicLinkIsSystems{false}; // the operation is the system's own (or its copy stand-in)

SymbolicLinkOperation chooseSymbolicLinkOperation()
{
    if (!IsWindowsVistaOrGreater())
        return &copyInsteadOfLink;
    HMODULE kernel = GetModuleHandleW(L"Kernel32.dll");
    FARPROC proc = kernel ? GetProcAddress(kernel, "CreateSymbolicLinkW") : nullptr;
    if (!proc)
        return &copyInsteadOfLink;
    return reinterpret_cast<SymbolicLinkOperation>(reinterpret_cast<void*>(proc));
}

} // namespace

bool PathCache::substitutedTarget(wchar_t letter, std::wstring& target)
{
    const wchar_t upper = static_cast<wchar_t>(std::towupper(letter));
    if (upper < L'A' || upper > L'Z')
        return qv::substitutedTarget(letter, target);
    Drive& drive = drives_[upper - L'A'];
    if (!drive.asked) {
        drive.substituted = qv::substitutedTarget(letter, drive.target);
        drive.asked = true;
    }
    if (drive.substituted)
        target = drive.target;
    return drive.substituted;
}

uint32_t normalizePath(std::wstring& path, PathCache* cache)
{
    // Some systems answer the current folder for an empty name; a missing path is never meant so.
    if (path.empty()) {
        SetLastError(ERROR_INVALID_NAME);
        return ERROR_INVALID_NAME;
    }
    if (!fullPathName(path))
        return GetLastError();

    if (path.size() >= 6 && path[5] == L':' && (startsWith(path, kLongPathPrefix) || startsWith(path, kDevicePrefix)))
        path.erase(0, kLongPrefixLength);

    if (path.size() >= 10 && startsWith(path, kLongUncPrefix)) {
        if (path[9] == L':' && path.size() >= 11 && path[10] == kPathSeparator) {
            path.erase(0, kLongUncPrefixLength);
        } else {
            path.erase(0, kLongUncPrefixLength - 1);
            path.insert(path.begin(), kPathSeparator);
        }
    }

    if (startsWith(path, L"\\\\")) {
        if (path.size() >= 3 && (path[2] == L'?' || path[2] == L'.')) {
            SetLastError(kErrorBadPathName);
            return kErrorBadPathName;
        }
        SetLastError(0);
        return 0;
    }

    if (path.empty() || !isDriveLetter(path[0]) || path.size() < 2 || path[1] != L':') {
        SetLastError(kErrorBadPathName);
        return kErrorBadPathName;
    }

    for (int i = 0; i < kMaxSubstitutions; ++i) {
        std::wstring target;
        if (!(cache ? cache->substitutedTarget(path[0], target) : substitutedTarget(path[0], target)))
            break;
        if (startsWith(target, kUncRemnant)) {
            // A drive substituted to a share: the path becomes a network path.
            path.replace(0, 2, L"\\" + target.substr(std::wcslen(kUncRemnant) - 1));
            break;
        }
        while (!target.empty() && target.back() == kPathSeparator && path.size() > 2 && path[2] == kPathSeparator)
            target.pop_back();
        path.replace(0, 2, target);
        if (path.size() < 2 || !isDriveLetter(path[0]) || path[1] != L':')
            break;
    }
    SetLastError(0);
    return 0;
}

bool toLongPath(std::wstring& path, PathCache* cache)
{
    if (normalizePath(path, cache) != 0)
        return false;
    if (startsWith(path, kLongPathPrefix))
        return true;
    if (startsWith(path, L"\\\\") && path.find(kPathSeparator, 3) != std::wstring::npos) {
        path = kLongUncPrefix + path.substr(2);
        return true;
    }
    if (path.size() > kShortPathLimit)
        path.insert(0, kLongPathPrefix);
    return true;
}

bool ensureParentFolder(const std::wstring& path, PathCache* cache)
{
    if (path.size() >= kShortPathBuffer) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return false;
    }
    wchar_t buffer[kShortPathBuffer];
    std::wmemcpy(buffer, path.c_str(), path.size() + 1);
    wchar_t* last = std::wcsrchr(buffer, kPathSeparator);
    if (!last)
        return false;
    *last = L'\0';
    const std::wstring folder = buffer;
    if (folder.empty())
        return false;
    if ((cache && cache->knowsFolder(folder)) || isVolumeRoot(folder))
        return true;
    if (!PathFileExistsW(buffer) && !ensureParentFolder(folder, cache))
        return false;
    if (!createFolder(folder))
        return false;
    if (cache)
        cache->addFolder(folder);
    return true;
}

bool ensureParentFolderLong(const std::wstring& path, PathCache* cache)
{
    const size_t last = path.rfind(kPathSeparator);
    if (last == std::wstring::npos || last == 0)
        return false;
    const std::wstring folder = path.substr(0, last);
    if ((cache && cache->knowsFolder(folder)) || isVolumeRoot(folder))
        return true;
    if (!directoryEntryExists(folder) && !ensureParentFolderLong(folder, cache))
        return false;
    if (!createFolder(folder))
        return false;
    if (cache)
        cache->addFolder(folder);
    return true;
}

bool preparePath(const std::wstring& folder, const std::wstring& name, std::wstring& out, PathCache* cache)
{
    out = folder + kPathSeparator + name;
    if (!toLongPath(out, cache))
        return false;
    const bool prefixed = startsWith(out, kLongPathPrefix);
    if (!prefixed && out.size() > kShortPathLimit)
        return false;
    return prefixed ? ensureParentFolderLong(out, cache) : ensureParentFolder(out, cache);
}

FILE* createNewFile(const std::wstring& path)
{
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return nullptr;
    const int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_BINARY);
    if (descriptor == -1) {
        CloseHandle(handle);
        return nullptr;
    }
    FILE* file = _wfdopen(descriptor, L"wb+");
    if (!file)
        _close(descriptor); // closes the handle with it
    return file;
}

bool pathExists(const std::wstring& path)
{
    if (startsWith(path, kLongPathPrefix))
        return directoryEntryExists(path);
    if (path.size() > kShortPathLimit)
        return false;
    return PathFileExistsW(path.c_str()) != FALSE;
}

uint64_t fileSize(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data))
        return 0;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        return 0;
    return (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

bool linkOrCopy(const std::wstring& newPath, const std::wstring& existingPath)
{
    if (CreateHardLinkW(newPath.c_str(), existingPath.c_str(), nullptr))
        return true;
    if (GetLastError() == kErrorAlreadyExists) {
        SetLastError(0);
        return true;
    }
    return CopyFileW(existingPath.c_str(), newPath.c_str(), FALSE) != FALSE;
}

void selectSymbolicLinkOperation()
{
    g_symbolicLink.store(chooseSymbolicLinkOperation());
    g_symbolicLinkIsSystems.store(true);
}

void setSymbolicLinkOperation(SymbolicLinkOperation operation)
{
    g_symbolicLink.store(operation);
    g_symbolicLinkIsSystems.store(false);
}

bool symbolicLink(const std::wstring& linkPath, const std::wstring& targetPath, bool directory)
{
    constexpr unsigned long kFolderLink = 0x1;        // SYMBOLIC_LINK_FLAG_DIRECTORY
    constexpr unsigned long kUnprivileged = 0x2;      // SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE
    SymbolicLinkOperation operation = g_symbolicLink.load();
    if (!operation) {
        selectSymbolicLinkOperation();
        operation = g_symbolicLink.load();
    }
    const unsigned long flags = directory ? kFolderLink : 0;
    bool made = operation(linkPath.c_str(), targetPath.c_str(), flags | kUnprivileged) != 0;
    if (!made && GetLastError() == ERROR_INVALID_PARAMETER) // a system older than that request
        made = operation(linkPath.c_str(), targetPath.c_str(), flags) != 0;
    // Some systems report a link made that is not there (Wine, for one): only one that stands counts.
    if (made && g_symbolicLinkIsSystems.load() && GetFileAttributesW(linkPath.c_str()) == INVALID_FILE_ATTRIBUTES) {
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
        made = false;
    }
    if (made)
        return true;
    if (GetLastError() == kErrorAlreadyExists) {
        SetLastError(0);
        return true;
    }
    return false;
}

bool copyTree(const std::wstring& from, const std::wstring& to)
{
    const DWORD attributes = GetFileAttributesW(from.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return false;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return CopyFileW(from.c_str(), to.c_str(), FALSE) != FALSE;
    if (!CreateDirectoryW(to.c_str(), nullptr) && GetLastError() != kErrorAlreadyExists)
        return false;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((from + L"\\*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return true;
    bool ok = true;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L".." || (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
            continue; // a link inside is not followed out of the tree
        ok = copyTree(from + L"\\" + name, to + L"\\" + name) && ok;
    } while (FindNextFileW(find, &data));
    FindClose(find);
    return ok;
}

bool utf8ToWide(const char* text, size_t length, wchar_t* out, size_t capacity)
{
    if (!out || capacity == 0)
        return false;
    out[0] = L'\0';
    if (!text)
        return false;
    if (length == 0)
        return true;
    if (length > static_cast<size_t>(INT32_MAX) || capacity - 1 > static_cast<size_t>(INT32_MAX))
        return false;
    const int source = static_cast<int>(length);
    const int needed = MultiByteToWideChar(CP_UTF8, 0, text, source, nullptr, 0);
    if (needed <= 0 || static_cast<size_t>(needed) >= capacity)
        return false;
    const int written = MultiByteToWideChar(CP_UTF8, 0, text, source, out, needed);
    if (written != needed) {
        out[0] = L'\0';
        return false;
    }
    out[written] = L'\0';
    return true;
}

bool utf8ToWide(const char* text, wchar_t* out, size_t capacity)
{
    return utf8ToWide(text, text ? std::strlen(text) : 0, out, capacity);
}

bool diskIsFull(const std::wstring& file, uint64_t needed)
{
    const DWORD error = GetLastError();
    if (errno == ENOSPC || error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL)
        return true;
    const size_t cut = file.find_last_of(L"\\/");
    ULARGE_INTEGER available{};
    return cut != std::wstring::npos &&
           GetDiskFreeSpaceExW((file.substr(0, cut) + L"\\").c_str(), &available, nullptr, nullptr) &&
           available.QuadPart < needed;
}

} // namespace qv
