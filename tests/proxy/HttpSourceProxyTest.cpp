// The HTTP source behind an authenticating proxy: WinINet meets a 407 on the HEAD request and the
// source asks the proxy lookup for credentials, then tries again with them. The proxy forwards every
// request to the loopback origin, so a 200 for a made-up host name proves the proxy carried it.
#include <gtest/gtest.h>

#include <windows.h>
#include <wininet.h>

#include <string>

#include "proxy/IeProxySettings.h"
#include "proxy/ProxyTestSupport.h"
#include "stream/HTTPStreamImp.h"

using namespace proxytest;

namespace {

const wchar_t kUrl[] = L"http://downloads.example/pkg/file.bin";
const wchar_t kInternetSettings[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings";

// WinINet's own proxy settings (ProxyEnable/ProxyServer), replaced for one test and put back.
class WinInetProxy {
public:
    WinInetProxy() : hadEnable_(read(L"ProxyEnable", enable_)), hadServer_(readText(L"ProxyServer", server_)) {}
    ~WinInetProxy()
    {
        restoreDword(L"ProxyEnable", hadEnable_, enable_);
        restoreText(L"ProxyServer", hadServer_, server_);
        refresh();
    }
    WinInetProxy(const WinInetProxy&) = delete;
    WinInetProxy& operator=(const WinInetProxy&) = delete;

    bool use(const std::string& hostAndPort)
    {
        const std::wstring server(hostAndPort.begin(), hostAndPort.end());
        const DWORD on = 1;
        const bool ok = setValue(L"ProxyEnable", REG_DWORD, &on, sizeof on) &&
                        setValue(L"ProxyServer", REG_SZ, server.c_str(),
                                 static_cast<DWORD>((server.size() + 1) * sizeof(wchar_t)));
        refresh();
        return ok;
    }

private:
    static void refresh()
    {
        InternetSetOptionW(nullptr, INTERNET_OPTION_SETTINGS_CHANGED, nullptr, 0);
        InternetSetOptionW(nullptr, INTERNET_OPTION_REFRESH, nullptr, 0);
    }
    static bool setValue(const wchar_t* name, DWORD type, const void* data, DWORD size)
    {
        return RegSetKeyValueW(HKEY_CURRENT_USER, kInternetSettings, name, type, data, size) == ERROR_SUCCESS;
    }
    static bool read(const wchar_t* name, DWORD& value)
    {
        DWORD size = sizeof value;
        return RegGetValueW(HKEY_CURRENT_USER, kInternetSettings, name, RRF_RT_REG_DWORD, nullptr, &value, &size) ==
               ERROR_SUCCESS;
    }
    static bool readText(const wchar_t* name, std::wstring& value)
    {
        wchar_t buffer[512] = {};
        DWORD size = sizeof buffer;
        if (RegGetValueW(HKEY_CURRENT_USER, kInternetSettings, name, RRF_RT_REG_SZ, nullptr, buffer, &size) !=
            ERROR_SUCCESS)
            return false;
        value = buffer;
        return true;
    }
    static void restoreDword(const wchar_t* name, bool had, DWORD value)
    {
        if (had)
            setValue(name, REG_DWORD, &value, sizeof value);
        else
            RegDeleteKeyValueW(HKEY_CURRENT_USER, kInternetSettings, name);
    }
    static void restoreText(const wchar_t* name, bool had, const std::wstring& value)
    {
        if (had)
            setValue(name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
        else
            RegDeleteKeyValueW(HKEY_CURRENT_USER, kInternetSettings, name);
    }

    DWORD enable_ = 0;
    bool hadEnable_;
    std::wstring server_;
    bool hadServer_;
};

class HttpSourceProxyTest : public ::testing::Test {
protected:
    WinInetProxy wininet_;
    IeProxySettings ie_;
    CredentialCleanup credentials_{L"127.0.0.1"};
};

// Runs first: once WinINet has been given proxy credentials it keeps them for the rest of the process.
TEST_F(HttpSourceProxyTest, A407StaysTheAnswerWhenTheLookupFindsNoProxy)
{
    ASSERT_TRUE(wininet_.use(proxyAt(kBasicProxy)));
    ASSERT_TRUE(ie_.apply(kDirect)); // the lookup sees no proxy configured and gives no credentials

    HTTPStreamImp stream(kUrl, 0, 0);
    EXPECT_NE(stream.openHead(true), nullptr); // the request itself went out
    EXPECT_EQ(stream.statusCode(), static_cast<uint32_t>(HTTP_STATUS_PROXY_AUTH_REQ));
}

TEST_F(HttpSourceProxyTest, StoredCredentialsAnswerTheProxysDemand)
{
    ASSERT_TRUE(wininet_.use(proxyAt(kBasicProxy)));
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"S3cret-pw"));

    HTTPStreamImp stream(kUrl, 0, 0);
    ASSERT_NE(stream.openHead(true), nullptr);
    EXPECT_EQ(stream.statusCode(), static_cast<uint32_t>(HTTP_STATUS_OK));
    EXPECT_GT(stream.contentLength(), 0);
}

// The range request that fetches the data meets the same demand; each new connection of the source
// must carry the credentials again, a proxy's answer to another connection is not remembered for it.
TEST_F(HttpSourceProxyTest, TheRangeRequestAnswersTheProxysDemandOnEveryConnection)
{
    ASSERT_TRUE(wininet_.use(proxyAt(kBasicProxy)));
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"S3cret-pw"));

    HTTPStreamImp stream(kUrl, 0, 0);
    for (int connection = 0; connection < 2; ++connection) {
        ASSERT_NE(stream.reconnect(), nullptr) << "connection " << connection;
        EXPECT_EQ(stream.statusCode(), static_cast<uint32_t>(HTTP_STATUS_OK));
        uint8_t page[64] = {};
        const uint32_t read = stream.readBytes(page, sizeof page);
        ASSERT_EQ(read, 12u) << "status " << stream.lastStatus();
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(page), read), "origin page\n");
        stream.seek(0, 0);
    }
}

} // namespace
