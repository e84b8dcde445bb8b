#include "control/FolderOps.h"

#include <shellapi.h>

#include <vector>

#include "common/Win32Raii.h"

namespace qv {

namespace {

constexpr size_t kShortPathLimit = 248; // folders longer than this need the long form

bool isDriveLetter(wchar_t c) { return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z'); }

struct Entry {
    std::wstring name;
    bool folder;
};

std::vector<Entry> listEntries(const std::wstring& folder)
{
    std::vector<Entry> entries;
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW(longForm(folder + L"\\*").c_str(), &data));
    if (!find)
        return entries;
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..")
            continue;
        entries.push_back({name, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
    } while (FindNextFileW(find.get(), &data));
    return entries;
}

// The shell's move of "folder\*.*" into target. Its answer is not trusted: the caller checks what is left.
void shellMoveAll(const std::wstring& folder, const std::wstring& target)
{
    // Both lists end with two terminators.
    std::wstring from = folder + L"\\*.*";
    from.push_back(L'\0');
    std::wstring to = target;
    to.push_back(L'\0');
    SHFILEOPSTRUCTW op{};
    op.wFunc = FO_MOVE;
    op.pFrom = from.c_str();
    op.pTo = to.c_str();
    op.fFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOCONFIRMMKDIR | FOF_NOERRORUI; // 0x614
    SHFileOperationW(&op);
}

// Moves what is left of source into target entry by entry, descending into folders that exist on both
// sides. Entries that cannot be moved stay in source.
void mergeInto(const std::wstring& source, const std::wstring& target)
{
    for (const Entry& entry : listEntries(source)) {
        const std::wstring from = source + L"\\" + entry.name;
        const std::wstring to = target + L"\\" + entry.name;
        if (entry.folder) {
            if (folderExists(to)) {
                mergeInto(from, to);
                if (folderIsEmpty(from))
                    RemoveDirectoryW(longForm(from).c_str());
            } else {
                MoveFileExW(longForm(from).c_str(), longForm(to).c_str(), MOVEFILE_COPY_ALLOWED);
            }
        } else {
            const std::wstring longTo = longForm(to);
            const DWORD attributes = GetFileAttributesW(longTo.c_str());
            if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
                continue; // a folder stands where the file would go: keep the file
            if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY))
                SetFileAttributesW(longTo.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
            MoveFileExW(longForm(from).c_str(), longTo.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED);
        }
    }
}

} // namespace

std::wstring longForm(const std::wstring& path)
{
    if (path.size() < kShortPathLimit || path.rfind(L"\\\\?\\", 0) == 0)
        return path;
    if (path.size() > 2 && isDriveLetter(path[0]) && path[1] == L':' && path[2] == L'\\')
        return L"\\\\?\\" + path;
    if (path.rfind(L"\\\\", 0) == 0 && path.size() > 2 && path[2] != L'?' && path[2] != L'.')
        return L"\\\\?\\UNC\\" + path.substr(2);
    return path;
}

std::wstring parentFolder(const std::wstring& path)
{
    std::wstring trimmed = path;
    while (trimmed.size() > 1 && (trimmed.back() == L'\\' || trimmed.back() == L'/'))
        trimmed.pop_back();
    const size_t cut = trimmed.find_last_of(L"\\/");
    if (cut == std::wstring::npos)
        return {};
    return trimmed.substr(0, cut);
}

std::wstring lastComponent(const std::wstring& path)
{
    std::wstring trimmed = path;
    while (trimmed.size() > 1 && (trimmed.back() == L'\\' || trimmed.back() == L'/'))
        trimmed.pop_back();
    const size_t cut = trimmed.find_last_of(L"\\/");
    return cut == std::wstring::npos ? trimmed : trimmed.substr(cut + 1);
}

bool folderExists(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(longForm(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool fileExists(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(longForm(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool createFolderTree(const std::wstring& path)
{
    if (path.empty())
        return false;
    if (folderExists(path))
        return true;
    const std::wstring parent = parentFolder(path);
    // Stop at a drive root ("C:") or a share root, which cannot be created.
    if (!parent.empty() && parent.size() > 2 && !folderExists(parent) && !createFolderTree(parent))
        return false;
    if (CreateDirectoryW(longForm(path).c_str(), nullptr))
        return true;
    return GetLastError() == ERROR_ALREADY_EXISTS && folderExists(path);
}

bool deleteTree(const std::wstring& path)
{
    if (path.empty())
        return false;
    const std::wstring longPath = longForm(path);
    const DWORD attributes = GetFileAttributesW(longPath.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return true;
    if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        SetFileAttributesW(longPath.c_str(), FILE_ATTRIBUTE_NORMAL);
        return DeleteFileW(longPath.c_str()) != 0;
    }
    // A link to a folder is removed itself, never followed.
    if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
        for (const Entry& entry : listEntries(path))
            deleteTree(path + L"\\" + entry.name);
    SetFileAttributesW(longPath.c_str(), FILE_ATTRIBUTE_DIRECTORY);
    return RemoveDirectoryW(longPath.c_str()) != 0 || !folderExists(path);
}

bool folderIsEmpty(const std::wstring& path) { return listEntries(path).empty(); }

bool moveContentsUp(const std::wstring& folder)
{
    const std::wstring target = parentFolder(folder);
    if (target.empty() || !folderExists(folder))
        return false;
    if (folderIsEmpty(folder))
        return true;
    // The shell cannot take long paths; those go entry by entry straight away.
    if (folder.size() < MAX_PATH - 4)
        shellMoveAll(folder, target);
    // Some shells report success without merging into folders that already exist in the target.
    if (!folderIsEmpty(folder))
        mergeInto(folder, target);
    return folderIsEmpty(folder);
}

bool flushFile(const std::wstring& path)
{
    if (path.empty())
        return false;
    HANDLE file = CreateFileW(longForm(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    const bool flushed = FlushFileBuffers(file) != 0;
    CloseHandle(file);
    return flushed;
}

} // namespace qv
