#include "proxy/ProxyText.h"

#include <windows.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace QRVL::ProxyManager {

std::wstring Widen(const std::string& utf8)
{
    if (utf8.empty() || utf8.size() > INT_MAX)
        return std::wstring();
    const int size = static_cast<int>(utf8.size());
    const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    if (n <= 0)
        return std::wstring();
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), n);
    return wide;
}

std::string Narrow(const std::wstring& wide)
{
    if (wide.empty() || wide.size() > INT_MAX)
        return std::string();
    const int size = static_cast<int>(wide.size());
    const int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    if (n <= 0)
        return std::string();
    std::string utf8(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), n, nullptr, nullptr);
    return utf8;
}

std::string Narrow(const wchar_t* wide) { return wide ? Narrow(std::wstring(wide)) : std::string(); }

bool EqualsNoCase(const std::wstring& a, const std::wstring& b)
{
    if (a.size() != b.size() || a.size() > INT_MAX)
        return false;
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
           CSTR_EQUAL;
}

bool SplitDelimited(const std::wstring& text, wchar_t delimiter, std::vector<std::wstring>& pieces)
{
    pieces.clear();
    if (text.empty())
        return false;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find(delimiter, start);
        if (end == std::wstring::npos) {
            pieces.push_back(text.substr(start));
            break;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

char* HeapCopy(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

void HeapRelease(char*& text)
{
    std::free(text);
    text = nullptr;
}

void Wipe(std::wstring& secret)
{
    if (!secret.empty())
        SecureZeroMemory(secret.data(), secret.size() * sizeof(wchar_t));
    secret.clear();
}

void Wipe(std::string& secret)
{
    if (!secret.empty())
        SecureZeroMemory(secret.data(), secret.size());
    secret.clear();
}

} // namespace QRVL::ProxyManager
