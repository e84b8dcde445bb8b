#include "proxy/IeProxySettings.h"

namespace proxytest {

namespace {

constexpr wchar_t kKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
constexpr wchar_t kValue[] = L"DefaultConnectionSettings";

void putDword(std::vector<BYTE>& out, DWORD value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<BYTE>(value >> (8 * i)));
}

void putText(std::vector<BYTE>& out, const std::string& text)
{
    putDword(out, static_cast<DWORD>(text.size()));
    out.insert(out.end(), text.begin(), text.end());
}

} // namespace

std::vector<BYTE> IeProxySettings::encode(DWORD flags, const std::string& proxy, const std::string& bypass,
                                          const std::string& pacUrl)
{
    static DWORD counter = 1;
    std::vector<BYTE> out;
    putDword(out, 0x46);
    putDword(out, counter++);
    putDword(out, flags);
    putText(out, proxy);
    putText(out, bypass);
    putText(out, pacUrl);
    for (int i = 0; i < 8; ++i)
        putDword(out, 0);
    return out;
}

IeProxySettings::IeProxySettings()
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, kKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return;
    DWORD type = 0;
    DWORD size = 0;
    if (RegQueryValueExW(key, kValue, nullptr, &type, nullptr, &size) == ERROR_SUCCESS && type == REG_BINARY) {
        saved_.resize(size);
        hadValue_ = RegQueryValueExW(key, kValue, nullptr, &type, saved_.data(), &size) == ERROR_SUCCESS;
        saved_.resize(size);
    }
    RegCloseKey(key);
}

IeProxySettings::~IeProxySettings()
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return;
    if (hadValue_)
        RegSetValueExW(key, kValue, 0, REG_BINARY, saved_.data(), static_cast<DWORD>(saved_.size()));
    else
        RegDeleteValueW(key, kValue);
    RegCloseKey(key);
}

bool IeProxySettings::apply(DWORD flags, const std::string& proxy, const std::string& bypass,
                            const std::string& pacUrl)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return false;
    const std::vector<BYTE> data = encode(flags, proxy, bypass, pacUrl);
    const bool ok =
        RegSetValueExW(key, kValue, 0, REG_BINARY, data.data(), static_cast<DWORD>(data.size())) == ERROR_SUCCESS;
    RegCloseKey(key);
    return ok;
}

} // namespace proxytest
