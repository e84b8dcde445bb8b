// Whole lookups through the exported functions only, as a client sees them: the user's proxy settings
// in the prefix's registry, PAC scripts and proxies on loopback, and the prefix's credential store.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "QrvlProxy.h"
#include "proxy/IeProxySettings.h"
#include "proxy/ProxyTestSupport.h"

using namespace proxytest;

namespace {

const std::string kHttpUrl = "http://downloads.example/pkg/file.bin";
const std::string kHttpsUrl = "https://downloads.example/pkg/file.bin";

class ProxyLookupTest : public ::testing::Test {
protected:
    unsigned lookup(const std::string& url, const char* user = nullptr, const char* password = nullptr,
                    bool silent = true)
    {
        UserData in = {url.c_str(), user, password, silent};
        return qrvlGetProxyInfo(&in, record_.out());
    }

    void expectProxy(unsigned offset, uint32_t scheme)
    {
        EXPECT_EQ(record_.server(), "127.0.0.1");
        EXPECT_EQ(record_.port(), portText(offset));
        EXPECT_EQ(record_.info.authScheme, scheme);
    }

    void expectEmptyRecord()
    {
        EXPECT_EQ(record_.info.server, nullptr);
        EXPECT_EQ(record_.info.serverPort, nullptr);
        EXPECT_EQ(record_.info.user, nullptr);
        EXPECT_EQ(record_.info.password, nullptr);
        EXPECT_EQ(record_.info.authScheme, 0u);
    }

    static std::wstring storedPassword()
    {
        std::wstring user;
        std::wstring password;
        return readCredential(L"127.0.0.1", user, password) ? user + L"/" + password : L"<none>";
    }

    IeProxySettings ie_;
    CredentialCleanup credentials_{L"127.0.0.1"};
    Record record_;
};

// --- where the proxy comes from ---

TEST_F(ProxyLookupTest, NoProxyConfiguredAnywhereGivesStatus1)
{
    ASSERT_TRUE(ie_.apply(kDirect));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_NO_PROXY_CONFIGURATION);
    expectEmptyRecord();
}

TEST_F(ProxyLookupTest, AutoDetectWithoutWpadServerFallsThroughToNoConfiguration)
{
    ASSERT_TRUE(ie_.apply(kDirect | kAutoDetect));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_NO_PROXY_CONFIGURATION);
}

TEST_F(ProxyLookupTest, ManualProxyWithoutAuthenticationIsUsedWithEmptyUser)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kOpenProxy)));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);
    EXPECT_EQ(record_.user(), "");
    EXPECT_EQ(record_.password(), "");
}

TEST_F(ProxyLookupTest, PacScriptWinsOverManualProxy)
{
    ASSERT_TRUE(ie_.apply(kManualProxy | kPacUrl | kAutoDetect, proxyAt(kOpenProxy), "",
                          pacUrl("PROXY " + proxyAt(kBasicProxy))));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
}

TEST_F(ProxyLookupTest, FailingPacScriptLeavesTheManualProxy)
{
    ASSERT_TRUE(ie_.apply(kManualProxy | kPacUrl, proxyAt(kOpenProxy), "",
                          "http://127.0.0.1:" + portText(kOrigin) + "/missing.pac"));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);
}

TEST_F(ProxyLookupTest, PacScriptAnsweringDirectWithNothingElseGivesStatus1)
{
    ASSERT_TRUE(ie_.apply(kPacUrl, "", "", pacUrl("DIRECT")));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_NO_PROXY_CONFIGURATION);
}

TEST_F(ProxyLookupTest, PerSchemeListPicksTheUrlsScheme)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, "https=" + proxyAt(kBasicProxy) + ";http=" + proxyAt(kOpenProxy)));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);

    qrvlProxyDeallocate(record_.out());
    ASSERT_TRUE(ie_.apply(kManualProxy, "http=" + proxyAt(kOpenProxy) + ";https=" + proxyAt(kBasicProxy)));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);
}

TEST_F(ProxyLookupTest, ListWithoutEntryForTheSchemeIsAnError)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, "ftp=" + proxyAt(kOpenProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_ERROR);
    expectEmptyRecord();
}

TEST_F(ProxyLookupTest, ListWithoutCandidatesSucceedsWithEmptyRecord)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, ";"));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectEmptyRecord();
}

// --- candidates in order ---

TEST_F(ProxyLookupTest, FirstUsableCandidateWins)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kNtlmProxy) + ";" + proxyAt(kOpenProxy)));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);
}

TEST_F(ProxyLookupTest, LastCandidateDecidesTheStatus)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kClosedPort) + ";" + proxyAt(kBasicProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);

    qrvlProxyDeallocate(record_.out());
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy) + ";" + proxyAt(kClosedPort)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_ERROR);
    expectEmptyRecord();
}

TEST_F(ProxyLookupTest, UnreachableProxyIsAnError)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kClosedPort)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_ERROR);
    expectEmptyRecord();
}

// --- authentication schemes ---

TEST_F(ProxyLookupTest, SilentModeWithAuthenticatingProxyGives6AndNamesTheProxy)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(record_.info.user, nullptr);
    EXPECT_EQ(record_.info.password, nullptr);
}

TEST_F(ProxyLookupTest, NegotiateAndNtlmAreReportedAsFour)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kNtlmProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kNtlmProxy, PROXY_AUTH_NTLM);
}

TEST_F(ProxyLookupTest, DigestIsReportedAsTwo)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kDigestProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kDigestProxy, PROXY_AUTH_DIGEST);
}

// --- credentials ---

TEST_F(ProxyLookupTest, AcceptedCallerCredentialsAreStoredAndFoundByTheNextLookup)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    ASSERT_EQ(lookup(kHttpUrl, kProxyUser, kProxyPassword), PM_STATUS_OK);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(record_.user(), kProxyUser);
    EXPECT_EQ(record_.password(), kProxyPassword);
    EXPECT_EQ(storedPassword(), L"alice/S3cret-pw");

    qrvlProxyDeallocate(record_.out());
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(record_.user(), kProxyUser);
    EXPECT_EQ(record_.password(), kProxyPassword);
}

TEST_F(ProxyLookupTest, StoredCredentialsServeAProxyFoundByPac)
{
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"S3cret-pw"));
    ASSERT_TRUE(ie_.apply(kPacUrl, "", "", pacUrl("PROXY " + proxyAt(kBasicProxy))));
    ASSERT_EQ(lookup(kHttpUrl), PM_STATUS_OK);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(record_.user(), kProxyUser);
    EXPECT_EQ(record_.password(), kProxyPassword);
}

TEST_F(ProxyLookupTest, RejectedCallerCredentialsFallBackToStoredOnesWithoutOverwritingThem)
{
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"S3cret-pw"));
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    ASSERT_EQ(lookup(kHttpUrl, "alice", "wrong"), PM_STATUS_OK);
    EXPECT_EQ(record_.password(), kProxyPassword);
    EXPECT_EQ(storedPassword(), L"alice/S3cret-pw");
}

TEST_F(ProxyLookupTest, RejectedCallerCredentialsAreNeitherUsedNorStored)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    EXPECT_EQ(lookup(kHttpUrl, "alice", "wrong"), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(record_.info.user, nullptr);
    EXPECT_EQ(storedPassword(), L"<none>");
}

TEST_F(ProxyLookupTest, RejectedStoredCredentialsInSilentModeGive6)
{
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"stale"));
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    EXPECT_EQ(lookup(kHttpUrl), PM_STATUS_SILENT_MODE_ERROR);
    expectProxy(kBasicProxy, PROXY_AUTH_BASIC);
    EXPECT_EQ(storedPassword(), L"alice/stale");
}

bool runningUnderWine()
{
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version");
}

// Wine's credential dialog hands back the stored entry without asking, so a proxy that rejects it
// would be asked forever; the lookup gives up after a bounded number of rounds instead.
TEST_F(ProxyLookupTest, EndlesslyRejectedCredentialsEndInAnError)
{
    if (!runningUnderWine())
        GTEST_SKIP() << "needs Wine's credential dialog, which answers from the store without a window";
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", L"stale"));
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    EXPECT_EQ(lookup(kHttpUrl, nullptr, nullptr, false), PM_STATUS_ERROR);
    expectEmptyRecord();
}

TEST_F(ProxyLookupTest, CredentialsForAnOpenProxyAreKeptAsGiven)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kOpenProxy)));
    ASSERT_EQ(lookup(kHttpUrl, "bob", "pw"), PM_STATUS_OK);
    expectProxy(kOpenProxy, PROXY_AUTH_NONE);
    EXPECT_EQ(record_.user(), "bob");
    EXPECT_EQ(record_.password(), "pw");
}

// --- input ---

TEST_F(ProxyLookupTest, InvalidInputIsRejectedBeforeAnyLookup)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kOpenProxy)));
    EXPECT_EQ(qrvlGetProxyInfo(nullptr, record_.out()), PM_STATUS_INVALID_INPUT);
    UserData in = {"", nullptr, nullptr, true};
    EXPECT_EQ(qrvlGetProxyInfo(&in, nullptr), PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(qrvlGetProxyInfo(&in, record_.out()), PM_STATUS_INVALID_INPUT);
    expectEmptyRecord();
}

} // namespace
