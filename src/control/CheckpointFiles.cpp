#include "control/CheckpointFiles.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "common/Win32Raii.h"
#include "control/FolderOps.h"

namespace qv {

namespace {

constexpr wchar_t kTempPrefix[] = L"_tmp_";

std::wstring idText(uint32_t id)
{
    wchar_t text[16];
    swprintf(text, std::size(text), L"%08u", id);
    return text;
}

template <typename Visit>
void forEachFile(const std::wstring& dir, const std::wstring& pattern, Visit visit)
{
    WIN32_FIND_DATAW data;
    UniqueFind find(FindFirstFileW(longForm(dir + L"\\" + pattern).c_str(), &data));
    if (!find)
        return;
    do {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            visit(std::wstring(data.cFileName));
    } while (FindNextFileW(find.get(), &data));
}

} // namespace

std::wstring CheckpointFiles::tempPath(const std::wstring& dir, uint32_t id, const wchar_t* stage)
{
    return dir + L"\\" + kTempPrefix + idText(id) + L"_" + stage + L".chk";
}

std::wstring CheckpointFiles::committedPath(const std::wstring& dir, uint32_t id, const wchar_t* stage)
{
    return dir + L"\\" + idText(id) + L"_" + stage + L".chk";
}

bool CheckpointFiles::writeTemp(const std::wstring& dir, uint32_t id, const wchar_t* stage, const void* data,
                                size_t size)
{
    UniqueFile file(CreateFileW(longForm(tempPath(dir, id, stage)).c_str(), GENERIC_WRITE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr));
    if (!file)
        return false;
    const auto* bytes = static_cast<const uint8_t*>(data);
    size_t done = 0;
    while (done < size) {
        const DWORD chunk = static_cast<DWORD>(std::min<size_t>(size - done, 0x40000000));
        DWORD written = 0;
        if (!WriteFile(file.get(), bytes + done, chunk, &written, nullptr) || written == 0)
            return false;
        done += written;
    }
    return FlushFileBuffers(file.get()) != 0;
}

int CheckpointFiles::commit(const std::wstring& dir, uint32_t id)
{
    const std::wstring prefix = kTempPrefix;
    std::vector<std::pair<std::wstring, std::wstring>> renamed;
    forEachFile(dir, prefix + idText(id) + L"_*.chk", [&](const std::wstring& name) {
        const std::wstring from = dir + L"\\" + name;
        const std::wstring to = dir + L"\\" + name.substr(prefix.size());
        MoveFileExW(longForm(from).c_str(), longForm(to).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
        renamed.emplace_back(from, to);
    });
    // A second pass catches a file that the search did not see renamed; it does nothing otherwise.
    int count = 0;
    for (const auto& [from, to] : renamed) {
        MoveFileExW(longForm(from).c_str(), longForm(to).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
        if (GetFileAttributesW(longForm(from).c_str()) != INVALID_FILE_ATTRIBUTES ||
            GetFileAttributesW(longForm(to).c_str()) == INVALID_FILE_ATTRIBUTES)
            count = -1;
        else if (count >= 0)
            ++count;
    }
    return count;
}

void CheckpointFiles::removeTemp(const std::wstring& dir, uint32_t id)
{
    std::vector<std::wstring> names;
    forEachFile(dir, std::wstring(kTempPrefix) + idText(id) + L"_*.chk",
                [&](const std::wstring& name) { names.push_back(name); });
    for (const auto& name : names)
        DeleteFileW(longForm(dir + L"\\" + name).c_str());
}

void CheckpointFiles::removeCommitted(const std::wstring& dir, uint32_t id)
{
    std::vector<std::wstring> names;
    forEachFile(dir, idText(id) + L"_*.chk", [&](const std::wstring& name) { names.push_back(name); });
    for (const auto& name : names)
        DeleteFileW(longForm(dir + L"\\" + name).c_str());
}

bool CheckpointFiles::read(const std::wstring& dir, uint32_t id, const wchar_t* stage, std::vector<uint8_t>& out)
{
    out.clear();
    UniqueFile file(CreateFileW(longForm(committedPath(dir, id, stage)).c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
    if (!file)
        return false;
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.get(), &size) || size.QuadPart <= 0 || size.QuadPart > 0x7FFFFFFF)
        return false;
    out.assign(static_cast<size_t>(size.QuadPart), 0);
    size_t done = 0;
    while (done < out.size()) {
        DWORD got = 0;
        if (!ReadFile(file.get(), out.data() + done, static_cast<DWORD>(out.size() - done), &got, nullptr) || got == 0)
            break;
        done += got;
    }
    if (done != out.size()) {
        out.clear();
        return false;
    }
    return true;
}

} // namespace qv
