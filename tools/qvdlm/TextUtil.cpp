#include "TextUtil.h"

#include <windows.h>

namespace qvcli {

std::string toUtf8(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        return {};
    std::string out(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
    return out;
}

std::wstring fromUtf8(const std::string& text)
{
    if (text.empty())
        return {};
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (size <= 0)
        return {};
    std::wstring out(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
    return out;
}

namespace {

int hexValue(wchar_t ch)
{
    if (ch >= L'0' && ch <= L'9')
        return ch - L'0';
    if (ch >= L'a' && ch <= L'f')
        return ch - L'a' + 10;
    if (ch >= L'A' && ch <= L'F')
        return ch - L'A' + 10;
    return -1;
}

} // namespace

bool decodeHexKey(const std::wstring& hex, std::string& key, std::wstring& error)
{
    key.clear();
    if (hex.empty()) {
        error = L"the key is empty";
        return false;
    }
    if (hex.size() % 2 != 0) {
        error = L"the key needs an even number of hexadecimal digits";
        return false;
    }
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int high = hexValue(hex[i]), low = hexValue(hex[i + 1]);
        if (high < 0 || low < 0) {
            error = L"the key holds a character that is not a hexadecimal digit";
            key.clear();
            return false;
        }
        if (high == 0 && low == 0) {
            error = L"the key holds a zero byte";
            key.clear();
            return false;
        }
        key.push_back(static_cast<char>(high * 16 + low));
    }
    return true;
}

int findRequestId(const std::vector<std::wstring>& ids, const std::wstring& wanted)
{
    if (wanted.empty())
        return kNoMatch;
    for (size_t i = 0; i < ids.size(); ++i)
        if (ids[i] == wanted)
            return static_cast<int>(i);
    int found = kNoMatch;
    for (size_t i = 0; i < ids.size(); ++i) {
        if (ids[i].compare(0, wanted.size(), wanted) != 0)
            continue;
        if (found != kNoMatch)
            return kAmbiguous;
        found = static_cast<int>(i);
    }
    return found;
}

std::wstring parentFolder(const std::wstring& path)
{
    std::wstring p = path;
    while (p.size() > 3 && (p.back() == L'\\' || p.back() == L'/'))
        p.pop_back();
    const size_t sep = p.find_last_of(L"\\/");
    if (sep == std::wstring::npos)
        return {};
    if (sep == 2 && p[1] == L':')
        return p.substr(0, 3);
    return p.substr(0, sep);
}

} // namespace qvcli
