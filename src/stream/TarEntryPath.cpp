#include "stream/TarEntryPath.h"

#include <windows.h>

#include <vector>

namespace qv::tar {

namespace {

bool isSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

bool onlyDotsAndSpaces(std::wstring_view component)
{
    for (const wchar_t c : component)
        if (c != L'.' && c != L' ')
            return false;
    return true;
}

bool equalNoCase(std::wstring_view a, std::wstring_view b)
{
    if (a.size() != b.size())
        return false;
    if (a.empty())
        return true;
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

} // namespace

bool relativeEntryPath(std::wstring_view name, std::wstring& out)
{
    out.clear();
    if (name.empty() || isSeparator(name.front()))
        return false;
    if (name.find(L':') != std::wstring_view::npos)
        return false;

    std::vector<std::wstring_view> parts;
    size_t pos = 0;
    while (pos <= name.size()) {
        size_t end = pos;
        while (end < name.size() && !isSeparator(name[end]))
            ++end;
        const std::wstring_view part = name.substr(pos, end - pos);
        if (part.empty() || part == L".") {
            // repeated or trailing separators, and "." stay where they are
        } else if (part == L"..") {
            if (parts.empty())
                return false;
            parts.pop_back();
        } else if (onlyDotsAndSpaces(part)) {
            return false;
        } else {
            parts.push_back(part);
        }
        pos = end + 1;
    }
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i)
            out += L'\\';
        out += parts[i];
    }
    return true;
}

bool relativeLinkTarget(std::wstring_view linkRelative, std::wstring_view target, std::wstring& out)
{
    out.clear();
    if (target.empty() || isSeparator(target.front()) || target.find(L':') != std::wstring_view::npos)
        return false;
    const size_t cut = linkRelative.find_last_of(L"\\/");
    std::wstring joined;
    if (cut != std::wstring_view::npos) {
        joined.assign(linkRelative.substr(0, cut));
        joined += L'\\';
    }
    joined += target;
    return relativeEntryPath(joined, out);
}

bool isInsideFolder(std::wstring_view folder, std::wstring_view path, bool allowSelf)
{
    while (folder.size() > 1 && isSeparator(folder.back()))
        folder.remove_suffix(1);
    while (path.size() > 1 && isSeparator(path.back()))
        path.remove_suffix(1);
    if (folder.empty() || path.size() < folder.size())
        return false;
    if (!equalNoCase(path.substr(0, folder.size()), folder))
        return false;
    if (path.size() == folder.size())
        return allowSelf;
    // A folder that is a root ("C:\") already ends at a separator.
    return isSeparator(folder.back()) || isSeparator(path[folder.size()]);
}

} // namespace qv::tar
