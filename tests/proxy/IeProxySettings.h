// The current user's Internet Explorer connection settings (the binary DefaultConnectionSettings value
// that WinHTTP reads), replaced for one test and put back afterwards.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace proxytest {

// Flags of the settings record.
constexpr DWORD kDirect = 1;
constexpr DWORD kManualProxy = 2;
constexpr DWORD kPacUrl = 4;
constexpr DWORD kAutoDetect = 8;

class IeProxySettings {
public:
    IeProxySettings();  // remembers what is there
    ~IeProxySettings(); // restores it
    IeProxySettings(const IeProxySettings&) = delete;
    IeProxySettings& operator=(const IeProxySettings&) = delete;

    bool apply(DWORD flags, const std::string& proxy = "", const std::string& bypass = "",
               const std::string& pacUrl = "");

    static std::vector<BYTE> encode(DWORD flags, const std::string& proxy, const std::string& bypass,
                                    const std::string& pacUrl);

private:
    bool hadValue_ = false;
    std::vector<BYTE> saved_;
};

} // namespace proxytest
