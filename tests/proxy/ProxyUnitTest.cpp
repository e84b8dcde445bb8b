// The proxy manager's pieces that need no server: list parsing, scheme tables, the record and its
// slots, the logger's lines and the credential store round trip.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>
#include <wincred.h>

#include <cstdarg>
#include <ostream>
#include <string>
#include <vector>

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyTestSupport.h"
#include "proxy/ProxyText.h"

using namespace QRVL::ProxyManager;
using proxytest::CredentialCleanup;

namespace QRVL::ProxyManager {
void PrintTo(const ProxyCandidate& candidate, std::ostream* os)
{
    *os << "(" << candidate.server << ", " << candidate.port << ")";
}
} // namespace QRVL::ProxyManager

namespace {

using Candidates = std::vector<ProxyCandidate>;

// Sets an environment variable for one test and restores it.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const wchar_t* value) : name_(name)
    {
        wchar_t old[1024];
        const DWORD n = GetEnvironmentVariableW(name, old, 1024);
        had_ = n > 0 && n < 1024;
        if (had_)
            old_ = old;
        SetEnvironmentVariableW(name, value);
    }
    ~ScopedEnv() { SetEnvironmentVariableW(name_.c_str(), had_ ? old_.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::wstring name_;
    std::wstring old_;
    bool had_ = false;
};

struct SchemeRow {
    const wchar_t* url;
    const wchar_t* type;
    const char* port;
};

class ServerTypeTest : public ::testing::TestWithParam<SchemeRow> {};

TEST_P(ServerTypeTest, SchemeGivesTypeAndDefaultPort)
{
    ProxyManagerImplWin manager;
    std::wstring type = L"unset";
    std::string port = "unset";
    EXPECT_TRUE(manager.GetServerTypeStrAndDefaultPort(GetParam().url, type, port));
    EXPECT_EQ(type, GetParam().type);
    EXPECT_EQ(port, GetParam().port);
}

INSTANTIATE_TEST_SUITE_P(Table, ServerTypeTest,
                         ::testing::Values(SchemeRow{L"http://host/file", L"http", "80"},
                                           SchemeRow{L"HTTP://HOST/FILE", L"http", "80"},
                                           SchemeRow{L"https://host/file", L"https", "443"},
                                           SchemeRow{L"ftp://host/file", L"ftp", "21"},
                                           SchemeRow{L"FtP://host", L"ftp", "21"},
                                           SchemeRow{L"socks://host:1", L"socks", "1080"},
                                           SchemeRow{L"gopher://host/", L"https", "443"},
                                           SchemeRow{L"host/file", L"https", "443"},
                                           SchemeRow{L"http:/host", L"https", "443"},
                                           SchemeRow{L"", L"https", "443"}));

struct ExtractRow {
    const wchar_t* type;
    const wchar_t* list;
    bool ok;
    const wchar_t* result;
};

class ExtractTest : public ::testing::TestWithParam<ExtractRow> {};

TEST_P(ExtractTest, ListIsReducedToTheScheme)
{
    ProxyManagerImplWin manager;
    std::wstring list = GetParam().list;
    EXPECT_EQ(manager.ExtractServerData(GetParam().type, list), GetParam().ok);
    if (GetParam().ok) {
        EXPECT_EQ(list, GetParam().result);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ExtractTest,
    ::testing::Values(ExtractRow{L"https", L"proxy.example:8080", true, L"proxy.example:8080"},
                      ExtractRow{L"https", L"a:1;b:2", true, L"a:1;b:2"},
                      ExtractRow{L"https", L"http=a:80;https=b:443", true, L"b:443"},
                      ExtractRow{L"http", L"http=a:80;https=b:443", true, L"a:80;"},
                      ExtractRow{L"https", L"https=b:443;http=a:80", true, L"b:443;"},
                      ExtractRow{L"https", L"HTTPS=b:443", true, L"b:443"},
                      ExtractRow{L"ftp", L"http=a:80;ftp=f:21;https=b:443", true, L"f:21;"},
                      ExtractRow{L"socks", L"socks=s:1080", true, L"s:1080"},
                      // A colon after the scheme word counts as a tag too.
                      ExtractRow{L"http", L"http://a:80", true, L"//a:80"},
                      ExtractRow{L"https", L"http=a:80", false, L""},
                      ExtractRow{L"http", L"https=b:443", false, L""},
                      ExtractRow{L"ftp", L"http=a:80;https=b:443", false, L""},
                      // The tag's "(.*)" stops at a line break, so such a list is no tagged list.
                      ExtractRow{L"http", L"http=a:80\nhttps=b:1", true, L"http=a:80\nhttps=b:1"},
                      // A list that does not begin with a tag is used as it stands.
                      ExtractRow{L"https", L"a:1;https=b:2", true, L"a:1;https=b:2"}));

TEST(ExtractServerData, SchemeMatchIsCaseInsensitiveOnBothSides)
{
    ProxyManagerImplWin manager;
    std::wstring list = L"Http=a:80;HTTPS=b:443";
    EXPECT_TRUE(manager.ExtractServerData(L"HTTP", list));
    EXPECT_EQ(list, L"a:80;");
}

struct ParseRow {
    const wchar_t* list;
    Candidates expected;
};

class ParseTest : public ::testing::TestWithParam<ParseRow> {};

TEST_P(ParseTest, EntriesBecomeCandidatesInOrder)
{
    ProxyManagerImplWin manager;
    Candidates candidates;
    EXPECT_TRUE(manager.ParseServerAndPortInfo("8080", GetParam().list, candidates));
    EXPECT_EQ(candidates, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ParseTest,
    ::testing::Values(ParseRow{L"proxy.example:3128", {{"proxy.example", "3128"}}},
                      ParseRow{L"proxy.example", {{"proxy.example", "8080"}}},
                      ParseRow{L"a:1;b:2;", {{"a", "1"}, {"b", "2"}}},
                      ParseRow{L"a:1;;b", {{"a", "1"}, {"b", "8080"}}},
                      ParseRow{L";", {}},
                      ParseRow{L"[fe80::1]:3128", {{"[fe80::1]", "3128"}}},
                      ParseRow{L"[fe80::1]", {{"[fe80::1]", "8080"}}},
                      ParseRow{L"[::1]:81;v4:82", {{"[::1]", "81"}, {"v4", "82"}}},
                      ParseRow{L"fe80::1", {{"fe80::1", "8080"}}},
                      ParseRow{L"[2001:db8::7]:1;[2001:db8::8]", {{"[2001:db8::7]", "1"}, {"[2001:db8::8]", "8080"}}},
                      ParseRow{L"h\u00e9te:9", {{"h\xc3\xa9te", "9"}}}));

TEST(ParseServerAndPortInfo, AppendsToWhatIsThere)
{
    ProxyManagerImplWin manager;
    Candidates candidates{{"first", "1"}};
    EXPECT_TRUE(manager.ParseServerAndPortInfo("80", L"second", candidates));
    EXPECT_EQ(candidates, (Candidates{{"first", "1"}, {"second", "80"}}));
}

TEST(ParseServerAndPortInfo, EmptyListFails)
{
    ProxyManagerImplWin manager;
    Candidates candidates;
    EXPECT_FALSE(manager.ParseServerAndPortInfo("80", L"", candidates));
    EXPECT_TRUE(candidates.empty());
}

struct FetchRow {
    const char* url;
    const wchar_t* list;
    bool ok;
    Candidates expected;
};

class FetchTest : public ::testing::TestWithParam<FetchRow> {};

TEST_P(FetchTest, UrlSchemePicksEntriesAndDefaultPort)
{
    ProxyManagerImplWin manager;
    manager.SetRequestUrl(GetParam().url);
    std::wstring list = GetParam().list;
    Candidates candidates;
    EXPECT_EQ(manager.FetchServerInfo(list, candidates), GetParam().ok);
    EXPECT_EQ(candidates, GetParam().expected);
    if (!GetParam().ok) {
        EXPECT_TRUE(list.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lists, FetchTest,
    ::testing::Values(FetchRow{"https://dl.example/p.tar", L"proxy.example:8080", true, {{"proxy.example", "8080"}}},
                      FetchRow{"http://dl.example/p", L"proxy.example", true, {{"proxy.example", "80"}}},
                      FetchRow{"ftp://dl.example/p", L"proxy.example", true, {{"proxy.example", "21"}}},
                      FetchRow{"gopher://dl.example/p", L"proxy.example", true, {{"proxy.example", "443"}}},
                      FetchRow{"https://dl.example/", L"http=a:80;https=b:443", true, {{"b", "443"}}},
                      FetchRow{"http://dl.example/", L"http=a:80;https=b:443", true, {{"a", "80"}}},
                      FetchRow{"https://dl.example/", L"https=b;http=a:80", true, {{"b", "443"}}},
                      FetchRow{"https://dl.example/", L"http=a:80", false, {}},
                      FetchRow{"https://dl.example/", L"", false, {}}));

// Worker threads of the library may have small stacks; a long URL or list must not exhaust them.
DWORD WINAPI fetchLongInputs(void* param)
{
    auto* results = static_cast<Candidates*>(param);
    ProxyManagerImplWin manager;
    manager.SetRequestUrl("HTTP://host/" + std::string(200000, 'u'));
    std::wstring list = L"ftp=f:21;http=" + std::wstring(100000, L'h') + L":8;https=" + std::wstring(100000, L's');
    if (!manager.FetchServerInfo(list, *results))
        return 1;
    std::wstring plain(150000, L'p');
    Candidates more;
    if (!manager.FetchServerInfo(plain, more) || more.size() != 1)
        return 2;
    return 0;
}

TEST(FetchServerInfo, LongInputsNeedNoDeepStack)
{
    Candidates results;
    HANDLE thread = CreateThread(nullptr, 256 * 1024, fetchLongInputs, &results, STACK_SIZE_PARAM_IS_A_RESERVATION,
                                 nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, 30000), WAIT_OBJECT_0);
    DWORD code = 99;
    GetExitCodeThread(thread, &code);
    CloseHandle(thread);
    EXPECT_EQ(code, 0u);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].server, std::string(100000, 'h'));
    EXPECT_EQ(results[0].port, "8");
}

TEST(SplitDelimited, BehavesLikeReadingPiecesFromAStream)
{
    std::vector<std::wstring> pieces;
    EXPECT_FALSE(SplitDelimited(L"", L';', pieces));
    ASSERT_TRUE(SplitDelimited(L"a;b;", L';', pieces));
    EXPECT_THAT(pieces, ::testing::ElementsAre(L"a", L"b"));
    ASSERT_TRUE(SplitDelimited(L"a;;b", L';', pieces));
    EXPECT_THAT(pieces, ::testing::ElementsAre(L"a", L"", L"b"));
    ASSERT_TRUE(SplitDelimited(L";", L';', pieces));
    EXPECT_THAT(pieces, ::testing::ElementsAre(L""));
    ASSERT_TRUE(SplitDelimited(L"solo", L';', pieces));
    EXPECT_THAT(pieces, ::testing::ElementsAre(L"solo"));
}

TEST(ProxyText, Utf8RoundTripKeepsCodePointsBeyondTheBasicPlane)
{
    const std::string utf8 = "x\xc3\xa9\xf0\x9f\x98\x80y"; // é and U+1F600
    const std::wstring wide = Widen(utf8);
    EXPECT_EQ(wide, std::wstring(L"x\u00e9\U0001F600y"));
    EXPECT_EQ(Narrow(wide), utf8);
    EXPECT_EQ(Narrow(static_cast<const wchar_t*>(nullptr)), "");
}

TEST(AuthSchemes, NtlmIsUsedForNegotiateAndReportedAsFour)
{
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(16), 2u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(16 | 2), 2u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(2 | 8 | 1), 2u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(8 | 1), 8u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(1), 1u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(4), 0u);
    EXPECT_EQ(ProxyManagerImplWin::ChooseAuthScheme(0), 0u);

    EXPECT_EQ(ProxyManagerImplWin::ReportedAuthScheme(16), PROXY_AUTH_NTLM);
    EXPECT_EQ(ProxyManagerImplWin::ReportedAuthScheme(2 | 1), PROXY_AUTH_NTLM);
    EXPECT_EQ(ProxyManagerImplWin::ReportedAuthScheme(8 | 1), PROXY_AUTH_DIGEST);
    EXPECT_EQ(ProxyManagerImplWin::ReportedAuthScheme(1), PROXY_AUTH_BASIC);
    EXPECT_EQ(ProxyManagerImplWin::ReportedAuthScheme(4), PROXY_AUTH_NONE);
}

TEST(WpadSwitch, OnlyFalseTurnsItOff)
{
    {
        ScopedEnv unset(L"QRVL_QRVL_WPAD_PROXY_CHECK", nullptr);
        EXPECT_TRUE(ProxyManagerImplWin::WpadCheckEnabled());
    }
    for (const wchar_t* off : {L"FALSE", L"false", L"FaLsE"}) {
        ScopedEnv value(L"QRVL_QRVL_WPAD_PROXY_CHECK", off);
        EXPECT_FALSE(ProxyManagerImplWin::WpadCheckEnabled()) << off;
    }
    for (const wchar_t* on : {L"TRUE", L"true", L"yes", L"0", L"", L"FALSE "}) {
        ScopedEnv value(L"QRVL_QRVL_WPAD_PROXY_CHECK", on);
        EXPECT_TRUE(ProxyManagerImplWin::WpadCheckEnabled()) << on;
    }
}

// The record slots through the base class, as a caller holding the interface would use them.
TEST(ManagerSlots, InputCheckResetsTheRecordWithoutFreeing)
{
    ProxyManagerImplWin concrete;
    ProxyManagerImpl& manager = concrete;
    char notOwned[] = "caller's";
    ProxyInfo out = {notOwned, notOwned, notOwned, notOwned, 7};
    UserData in = {"http://x/", nullptr, nullptr, false};
    EXPECT_EQ(manager.CheckInput(&in, &out), PM_STATUS_OK);
    EXPECT_EQ(out.user, nullptr);
    EXPECT_EQ(out.password, nullptr);
    EXPECT_EQ(out.server, nullptr);
    EXPECT_EQ(out.serverPort, nullptr);
    EXPECT_EQ(out.authScheme, 0u);
    EXPECT_STREQ(notOwned, "caller's");

    UserData empty = {"", nullptr, nullptr, false};
    out.server = notOwned;
    EXPECT_EQ(manager.CheckInput(&empty, &out), PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(out.server, nullptr);
    UserData missing = {nullptr, "u", "p", false};
    EXPECT_EQ(manager.CheckInput(&missing, &out), PM_STATUS_INVALID_INPUT);
}

TEST(ProxyLookup, NullArgumentsAreInvalidInput)
{
    UserData in = {"http://x/", nullptr, nullptr, false};
    ProxyInfo out = {};
    EXPECT_EQ(qrvlGetProxyInfo(nullptr, &out), PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(qrvlGetProxyInfo(&in, nullptr), PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(qrvlGetProxyInfo(nullptr, nullptr), PM_STATUS_INVALID_INPUT);
}

TEST(ProxyLookup, EmptyOrMissingUrlIsInvalidInputAndTheRecordIsCleared)
{
    char notOwned[] = "old";
    ProxyInfo out = {notOwned, notOwned, notOwned, notOwned, 4};
    UserData in = {"", "u", "p", true};
    EXPECT_EQ(qrvlGetProxyInfo(&in, &out), PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(out.server, nullptr);
    EXPECT_EQ(out.user, nullptr);
    EXPECT_EQ(out.authScheme, 0u);
    in.url = nullptr;
    EXPECT_EQ(qrvlGetProxyInfo(&in, &out), PM_STATUS_INVALID_INPUT);
}

TEST(ProxyDeallocate, FreesOnceAndToleratesRepeatsAndNull)
{
    ProxyInfo out = {HeapCopy("u"), HeapCopy("p"), HeapCopy("s"), HeapCopy("1"), 1};
    qrvlProxyDeallocate(&out);
    EXPECT_EQ(out.user, nullptr);
    EXPECT_EQ(out.password, nullptr);
    EXPECT_EQ(out.server, nullptr);
    EXPECT_EQ(out.serverPort, nullptr);
    EXPECT_EQ(out.authScheme, 0u);
    out.authScheme = 2;
    qrvlProxyDeallocate(&out);
    EXPECT_EQ(out.authScheme, 0u);
    qrvlProxyDeallocate(nullptr);
}

TEST(CheckAuthenticatingProxy, EmptyUrlOrProxyIsInvalidInput)
{
    ProxyManagerImplWin manager;
    EXPECT_EQ(manager.CheckAuthenticatingProxy(true), PM_STATUS_INVALID_INPUT);
    manager.SetRequestUrl("http://x/");
    EXPECT_EQ(manager.CheckAuthenticatingProxy(true), PM_STATUS_INVALID_INPUT);
    manager.SetRequestUrl("");
    manager.SetProxy("127.0.0.1", "1");
    EXPECT_EQ(manager.ProxyString(), L"127.0.0.1:1");
    EXPECT_EQ(manager.CheckAuthenticatingProxy(true), PM_STATUS_INVALID_INPUT);
}

TEST(ProxyLogger, LinesCarryThePrefixAndTheLevelTag)
{
    EXPECT_EQ(ProxyLogger::BuildLine(LOG_INFO, "PMStatus:1"), "Quorvel   QrvlProxyManager   [INFO]   PMStatus:1\n");
    EXPECT_EQ(ProxyLogger::BuildLine(LOG_ERROR, L"x"), L"Quorvel   QrvlProxyManager   [ERROR]   x\n");
    EXPECT_STREQ(ProxyLogger::LevelTag(LOG_TRACE), "[TRACE]");
    EXPECT_STREQ(ProxyLogger::LevelTag(LOG_DEBUG), "[DEBUG]");
    EXPECT_STREQ(ProxyLogger::LevelTag(LOG_INFO), "[INFO]");
    EXPECT_STREQ(ProxyLogger::LevelTag(LOG_ERROR), "[ERROR]");
    EXPECT_STREQ(ProxyLogger::LevelTag(LOG_FATAL), "[FATAL]");
    EXPECT_STREQ(ProxyLogger::LevelTag(5), "[INFO]");
    EXPECT_STREQ(ProxyLogger::LevelTag(-1), "[INFO]");
}

std::string formatNarrow(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = ProxyLogger::FormatText(format, args);
    va_end(args);
    return text;
}

std::wstring formatWide(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::wstring text = ProxyLogger::FormatText(format, args);
    va_end(args);
    return text;
}

TEST(ProxyLogger, MessagesAreCutAtTheBufferSize)
{
    const std::string longText(5000, 'a');
    const std::string narrow = formatNarrow("%s", longText.c_str());
    EXPECT_EQ(narrow.size(), ProxyLogger::kMessageChars - 1);
    const std::wstring longWide(5000, L'b');
    const std::wstring wide = formatWide(L"%ls", longWide.c_str());
    EXPECT_EQ(wide.size(), ProxyLogger::kMessageChars - 1);
    EXPECT_EQ(formatNarrow("Error:%lu", 12180ul), "Error:12180");
    EXPECT_EQ(formatWide(L"%ls() API failed. Error:%lu", L"WinHttpOpen", 5ul), L"WinHttpOpen() API failed. Error:5");
}

TEST(ProxyLogger, FlagFollowsTheVariable)
{
    {
        ScopedEnv value(L"QRVL_ENABLE_DEBUG_STRING", L"true");
        EXPECT_TRUE(ProxyLogger::ReadEnabledFlag());
    }
    {
        ScopedEnv value(L"QRVL_ENABLE_DEBUG_STRING", L"TRUE");
        EXPECT_TRUE(ProxyLogger::ReadEnabledFlag());
    }
    for (const wchar_t* off : {L"FALSE", L"yes", L"1", L""}) {
        ScopedEnv value(L"QRVL_ENABLE_DEBUG_STRING", off);
        EXPECT_FALSE(ProxyLogger::ReadEnabledFlag()) << off;
    }
    ScopedEnv unset(L"QRVL_ENABLE_DEBUG_STRING", nullptr);
    EXPECT_FALSE(ProxyLogger::ReadEnabledFlag());
}

TEST(ProxyLogger, SystemTextHasNoTrailingLineBreak)
{
    const std::wstring text = ProxyLogger::SystemErrorText(ERROR_ACCESS_DENIED);
    ASSERT_FALSE(text.empty());
    EXPECT_NE(text.back(), L'\n');
    EXPECT_NE(text.back(), L'\r');
}

// The real credential store of the test prefix.
class CredentialStoreTest : public ::testing::Test {
protected:
    const std::wstring target_ = L"qvdlm-unit.invalid";
    CredentialCleanup cleanup_{target_};
    ProxyManagerImplWin manager_;
};

TEST_F(CredentialStoreTest, StoredEntryIsAGenericLocalMachineCredentialWithoutTerminator)
{
    ASSERT_TRUE(manager_.StoreCredentials("qvdlm-unit.invalid", L"CORP\\bob", L"pw\u00e9"));
    PCREDENTIALW credential = nullptr;
    ASSERT_TRUE(CredReadW(target_.c_str(), CRED_TYPE_GENERIC, 0, &credential));
    EXPECT_EQ(credential->Type, static_cast<DWORD>(CRED_TYPE_GENERIC));
    EXPECT_EQ(credential->Persist, static_cast<DWORD>(CRED_PERSIST_LOCAL_MACHINE));
    EXPECT_STREQ(credential->UserName, L"CORP\\bob");
    ASSERT_EQ(credential->CredentialBlobSize, 6u);
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(credential->CredentialBlob), 3), L"pw\u00e9");
    CredFree(credential);
}

TEST_F(CredentialStoreTest, LoadFindsWhatWasStored)
{
    std::wstring user;
    std::wstring password;
    EXPECT_FALSE(manager_.LoadCredentials("qvdlm-unit.invalid", user, password));
    ASSERT_TRUE(proxytest::writeCredential(target_, L"carol", L"Pa55"));
    ASSERT_TRUE(manager_.LoadCredentials("qvdlm-unit.invalid", user, password));
    EXPECT_EQ(user, L"carol");
    EXPECT_EQ(password, L"Pa55");
}

TEST_F(CredentialStoreTest, NothingIsStoredWithoutTargetOrUser)
{
    EXPECT_FALSE(manager_.StoreCredentials("", L"bob", L"x"));
    EXPECT_FALSE(manager_.StoreCredentials("qvdlm-unit.invalid", L"", L"x"));
    std::wstring user;
    std::wstring password;
    EXPECT_FALSE(proxytest::readCredential(target_, user, password));
    EXPECT_FALSE(manager_.LoadCredentials("", user, password));
}

} // namespace
