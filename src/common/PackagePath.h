// Which pipeline a URL path asks for: a true, case-insensitive suffix test. The request's exported
// isLzma2Package/isSfxPackage keep their long-standing answers for callers (true for a path one
// character shorter than the suffix); the library's and its tools' own decisions use these.
#pragma once

#include <cwchar>
#include <cwctype>

namespace qv {

inline bool pathEndsWithNoCase(const wchar_t* path, const wchar_t* suffix)
{
    if (!path)
        return false;
    const size_t length = std::wcslen(path), n = std::wcslen(suffix);
    if (length < n)
        return false;
    for (size_t i = 0; i < n; ++i)
        if (std::towlower(path[length - n + i]) != std::towlower(suffix[i]))
            return false;
    return true;
}

inline bool isSfxPath(const wchar_t* urlPath) { return pathEndsWithNoCase(urlPath, L".sfx.exe"); }

// True when the path names a package (decoded and unpacked) rather than a plain file.
inline bool isPackagePath(const wchar_t* urlPath)
{
    return pathEndsWithNoCase(urlPath, L".tar.lzma2") || isSfxPath(urlPath);
}

} // namespace qv
