// The proxy lookup against proxy_servers.py with the prefix's proxy settings and credential store: the HTTP source meeting a
// 407, whole lookups as child processes under this program's debugger (status, record, every debug line), and the dialog.
#include <gtest/gtest.h>

#include <windows.h>
#include <wincred.h>
#include <wininet.h>

#include <atomic>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QrvlProxy.h"
#include "proxy/ProxyManagerImplWin.h"
#include "stream/HTTPStreamImp.h"
#include "support/TestSupport.h"

using QRVL::ProxyManager::ProxyManagerImplWin;
using qvtest::narrow;
using qvtest::widen;

namespace {

const std::string kUrl = "http://downloads.example/pkg/file.bin";
enum : DWORD { kDirect = 1, kManual = 2, kPac = 4, kAutoDetect = 8 }; // IE settings flags

// Loopback "@B" Basic proxy, "@O" origin, "@P" open proxy, "@N" NTLM, "@D" Digest, "@C" closed; "#B" etc. the port alone.
std::string expand(std::string text)
{
    for (const auto& [mark, offset] : {std::pair{'B', 12}, {'O', 13}, {'P', 14}, {'N', 15}, {'D', 16}, {'C', 17}})
        for (const char kind : {'@', '#'})
            for (size_t at; (at = text.find({kind, mark})) != std::string::npos;)
                text.replace(at, 2, (kind == '@' ? "127.0.0.1:" : "") + std::to_string(qvtest::port(offset)));
    return text;
}

// A registry value of the current user, set for one test and removed afterwards (the test prefix has none).
struct RegistryValue {
    ~RegistryValue() { RegDeleteKeyValueW(HKEY_CURRENT_USER, key, name); }
    bool set(DWORD type, const std::vector<BYTE>& v) { return RegSetKeyValueW(HKEY_CURRENT_USER, key, name, type, v.data(), DWORD(v.size())) == 0; }
    const wchar_t *key, *name;
};

#define QVDLM_INTERNET_SETTINGS L"Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings"

// Internet Explorer's connection settings, which WinHTTP reads.
struct IeSettings : RegistryValue {
    IeSettings() : RegistryValue{QVDLM_INTERNET_SETTINGS L"\\Connections", L"DefaultConnectionSettings"} {}
    bool apply(DWORD flags, const std::string& proxy = "", const std::string& bypass = "", const std::string& pac = "")
    {
        static DWORD counter = 1;
        std::vector<BYTE> out;
        auto put = [&out](DWORD value) { out.insert(out.end(), reinterpret_cast<BYTE*>(&value), reinterpret_cast<BYTE*>(&value + 1)); };
        put(0x46), put(counter++), put(flags);
        for (const std::string& text : {expand(proxy), bypass, expand(pac)})
            put(static_cast<DWORD>(text.size())), out.insert(out.end(), text.begin(), text.end());
        out.resize(out.size() + 32);
        return set(REG_BINARY, out);
    }
};

// The credential store's entry for the loopback proxies, removed around each test.
struct StoredCredential {
    StoredCredential() { CredDeleteW(L"127.0.0.1", CRED_TYPE_GENERIC, 0); }
    ~StoredCredential() { CredDeleteW(L"127.0.0.1", CRED_TYPE_GENERIC, 0); }
    static bool write(const std::wstring& s) // "user/password", through the library's own store call
    {
        return ProxyManagerImplWin().StoreCredentials("127.0.0.1", s.substr(0, s.find(L'/')), s.substr(s.find(L'/') + 1));
    }
    static std::wstring read() // "user/password" of a local-machine entry, or ""
    {
        PCREDENTIALW c = nullptr;
        if (!CredReadW(L"127.0.0.1", CRED_TYPE_GENERIC, 0, &c))
            return L"";
        const std::wstring text = std::wstring(c->UserName) + (c->Persist == CRED_PERSIST_LOCAL_MACHINE ? L"/" : L"?") +
                                  std::wstring(reinterpret_cast<const wchar_t*>(c->CredentialBlob), c->CredentialBlobSize / 2);
        CredFree(c);
        return text;
    }
};

std::string recordText(const ProxyInfo& r)
{
    auto s = [](const char* p) { return std::string(p ? p : "(null)"); };
    return s(r.server) + ":" + s(r.serverPort) + " " + s(r.user) + "/" + s(r.password) + " " + std::to_string(r.authScheme);
}

// --- the HTTP source behind the Basic proxy (first: WinINet keeps proxy credentials once given) ---

class HttpSourceProxyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::wstring proxy = widen(expand("@B"));
        const auto* bytes = reinterpret_cast<const BYTE*>(proxy.c_str());
        ASSERT_TRUE(enable_.set(REG_DWORD, {1, 0, 0, 0}) && server_.set(REG_SZ, {bytes, bytes + 2 * proxy.size() + 2}));
        InternetSetOptionW(nullptr, INTERNET_OPTION_SETTINGS_CHANGED, nullptr, 0);
    }

    RegistryValue enable_{QVDLM_INTERNET_SETTINGS, L"ProxyEnable"}, server_{QVDLM_INTERNET_SETTINGS, L"ProxyServer"};
    IeSettings ie_;
    StoredCredential credential_;
    HTTPStreamImp stream{widen(kUrl).c_str(), 0, 0};
};

TEST_F(HttpSourceProxyTest, TheHeadRequestGetsItsCredentialsFromTheLookup)
{
    ASSERT_TRUE(ie_.apply(kDirect)); // the lookup finds no proxy: the 407 stays
    EXPECT_TRUE(stream.openHead(true) && stream.statusCode() == 407) << stream.statusCode();
    ASSERT_TRUE(ie_.apply(kManual, "@B") && StoredCredential::write(L"alice/S3cret-pw"));
    ASSERT_NE(stream.openHead(true), nullptr);
    EXPECT_TRUE(stream.statusCode() == 200 && stream.contentLength() == 12) << stream.statusCode();
}

// Each new connection of the source must carry the credentials again: a proxy's answer to another
// connection is not remembered for it.
TEST_F(HttpSourceProxyTest, TheRangeRequestAnswersTheProxysDemandOnEveryConnection)
{
    ASSERT_TRUE(ie_.apply(kManual, "@B") && StoredCredential::write(L"alice/S3cret-pw"));
    for (int connection = 0; connection < 2; ++connection) {
        ASSERT_NE(stream.reconnect(), nullptr) << "connection " << connection;
        EXPECT_EQ(stream.statusCode(), 200u);
        uint8_t page[64] = {};
        const uint32_t read = stream.readBytes(page, sizeof page);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(page), read), "origin page\n") << stream.lastStatus();
        stream.seek(0, 0);
    }
}

// In the child: one lookup from QVDLM_PROXY_PROBE ("<url>|<user>|<password>|loud|", "(null)" for no
// input, empty for null); the record goes to the debugger output, the status is the exit code.
TEST(ProxyProbe, Lookup)
{
    const std::string probe = narrow(qvtest::env(L"QVDLM_PROXY_PROBE"));
    if (probe.empty())
        GTEST_SKIP() << "only in a child process";
    std::vector<std::string> parts(4);
    std::stringstream fields(probe);
    for (std::string& part : parts)
        std::getline(fields, part, '|');
    UserData in = {parts[0].c_str(), parts[1].empty() ? nullptr : parts[1].c_str(),
                   parts[2].empty() ? nullptr : parts[2].c_str(), parts[3] != "loud"};
    ProxyInfo out = {};
    const unsigned status = qrvlGetProxyInfo(parts[0] == "(null)" ? nullptr : &in, &out);
    OutputDebugStringA(("probe-record " + recordText(out) + "\n").c_str());
    qrvlProxyDeallocate(&out), qrvlProxyDeallocate(&out), qrvlProxyDeallocate(nullptr); // repeats are harmless
    std::exit(static_cast<int>(status)); // through the C runtime, which writes what it must at exit
}

PROCESS_INFORMATION start(std::wstring command, DWORD flags)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, flags, nullptr, nullptr, &startup, &process);
    return process;
}

using Env = std::vector<std::pair<std::wstring, std::wstring>>;

Env setEnvironment(const Env& env) // answers the values before
{
    Env before;
    for (const auto& [name, value] : env) {
        before.emplace_back(name, qvtest::env(name.c_str()));
        SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());
    }
    return before;
}

// Runs the probe as a debuggee with the given variables set; answers its exit code and debug output.
std::pair<DWORD, std::string> runProbe(const Env& env)
{
    const Env saved = setEnvironment(env);
    wchar_t self[MAX_PATH];
    const std::wstring command = L"\"" + std::wstring(self, GetModuleFileNameW(nullptr, self, MAX_PATH)) + L"\" --gtest_filter=ProxyProbe.*";
    const PROCESS_INFORMATION child = start(command, DEBUG_ONLY_THIS_PROCESS);
    std::pair<DWORD, std::string> result{1000, ""};
    for (ULONGLONG deadline = GetTickCount64() + 60000; child.hProcess && GetTickCount64() < deadline;) {
        DEBUG_EVENT e = {};
        if (!WaitForDebugEvent(&e, 500))
            continue;
        DWORD answer = DBG_CONTINUE;
        ULONG_PTR text = 0, length = 0, wide = 0; // a debug string, in the child's memory
        if (e.dwDebugEventCode == OUTPUT_DEBUG_STRING_EVENT)
            text = reinterpret_cast<ULONG_PTR>(e.u.DebugString.lpDebugStringData), length = e.u.DebugString.nDebugStringLength,
            wide = e.u.DebugString.fUnicode;
        else if (e.dwDebugEventCode == EXCEPTION_DEBUG_EVENT && e.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT)
            answer = DBG_EXCEPTION_NOT_HANDLED;
        std::vector<char> buffer(text && length < 65536 ? length * (wide ? 2 : 1) : 0);
        SIZE_T got = 0;
        if (!buffer.empty() && ReadProcessMemory(child.hProcess, reinterpret_cast<void*>(text), buffer.data(), buffer.size(), &got))
            result.second += wide ? narrow(std::wstring(reinterpret_cast<const wchar_t*>(buffer.data()), got / 2).c_str())
                                  : std::string(buffer.data(), got).c_str();
        if (e.dwDebugEventCode == EXIT_PROCESS_DEBUG_EVENT)
            result.first = e.u.ExitProcess.dwExitCode, deadline = 0;
        ContinueDebugEvent(e.dwProcessId, e.dwThreadId, answer);
    }
    if (child.hProcess)
        TerminateProcess(child.hProcess, 1001), CloseHandle(child.hThread), CloseHandle(child.hProcess);
    setEnvironment(saved);
    return result;
}

struct LookupRow {
    DWORD flags;
    const char *proxy, *pac;
    const wchar_t* stored; // "user/password" in the store before, or null
    std::string input;     // of the probe: url|user|password|loud
    Env env;
    unsigned status;
    const char* record;                   // server:port user/password scheme
    const wchar_t* storedAfter = nullptr; // null: as before
    std::vector<std::string> lines = {}, absent = {}; // expected after the line prefix; never seen
};

class LookupTest : public ::testing::TestWithParam<LookupRow> {};

TEST_P(LookupTest, StatusRecordStoreAndLog)
{
    const LookupRow& row = GetParam();
    IeSettings ie;
    StoredCredential credential;
    ASSERT_TRUE(ie.apply(row.flags, row.proxy, row.flags & kPac ? "<local>" : "", row.pac));
    ASSERT_TRUE(!row.stored || StoredCredential::write(row.stored));
    Env env{{L"QRVL_ENABLE_DEBUG_STRING", L"TRUE"}};
    env.insert(env.end(), row.env.begin(), row.env.end());
    env.emplace_back(L"QVDLM_PROXY_PROBE", widen(row.input + "|"));
    for (auto& [name, value] : env)
        value = widen(expand(narrow(value)));
    auto [status, log] = runProbe(env);

    EXPECT_EQ(status, row.status);
    const size_t at = log.find("probe-record "), end = log.find('\n', at);
    ASSERT_NE(end, std::string::npos) << log;
    EXPECT_EQ(log.substr(at + 13, end - at - 13), expand(row.record));
    log.erase(at, end - at + 1);
    EXPECT_EQ(StoredCredential::read(), row.storedAfter ? row.storedAfter : row.stored ? row.stored : L"");
    for (const std::string& line : row.lines)
        EXPECT_NE(log.find("Quorvel   QrvlProxyManager   " + expand(line)), std::string::npos) << expand(line) << "\n" << log;
    for (const std::string& text : row.absent)
        EXPECT_EQ(log.find(expand(text)), std::string::npos) << text << "\n" << log;
    EXPECT_EQ(log.find("S3cret-pw"), std::string::npos) << log; // no password in any line
    for (size_t from = 0; (from = log.find('\n', from)) != std::string::npos && from + 1 < log.size(); ++from)
        EXPECT_EQ(log.compare(from + 1, 29, "Quorvel   QrvlProxyManager   "), 0) << log.substr(from + 1, 80);
}

const char kNone[] = "(null):(null) (null)/(null) 0", kOpen[] = "127.0.0.1:#P / 0", kBasic[] = "127.0.0.1:#B (null)/(null) 1";
INSTANTIATE_TEST_SUITE_P(Settings, LookupTest, ::testing::Values(
    // Where the proxy comes from: IE settings (WPAD, PAC, manual), then the default configuration.
    LookupRow{kDirect, "", "", nullptr, kUrl, {}, 1, kNone, nullptr, {"[INFO]   Unable to detect proxy information from IE settings. "
        "Trying to get proxy information using default proxy configuration ...\n", "[INFO]   Unable to detect proxy information from "
        "default proxy configuration\nQuorvel   QrvlProxyManager   [INFO]   No proxy server configuration detected.\n",
        "[INFO]   PMStatus:1\n"}, {"Output:"}},
    LookupRow{kDirect, "", "", nullptr, kUrl, {{L"http_proxy", L"@P"}}, 0, kOpen, nullptr, {"[DEBUG]   Proxy server list:@P\n",
        "[INFO]   Output: [server=127.0.0.1 serverPort=#P user= password=**** authScheme=0]\n"}},
    LookupRow{kManual | kAutoDetect, "@P", "", nullptr, kUrl, {{L"QRVL_QRVL_WPAD_PROXY_CHECK", L"false"}}, 0, kOpen, nullptr, {"[DEBUG]   "
        "AutoDetect:1\n", "[INFO]   WDAP proxy check is disabled, skipping WPAD based proxy discovery.\n"}, {"WDAP based", "AutoDetectProxy"}},
    LookupRow{kManual | kAutoDetect, "@P", "", nullptr, kUrl, {{L"QRVL_QRVL_WPAD_PROXY_CHECK", L"yes"}}, 0, kOpen, nullptr, {"[INFO]   "
        "Discovering WDAP based proxy setting ... (this may take several seconds)\n", "[INFO]   Unable to automatically detect proxy "
        "information using WPAD\n"}},
    LookupRow{kManual | kPac | kAutoDetect, "@P", "http://@O/pac/PROXY%20@B", nullptr, kUrl, {}, 6, kBasic, nullptr, {"[ERROR]   "
        "PM_STATUS_SILENT_MODE_ERROR - Application running under Silent Mode and it requires proxy server credentials.\n"}},
    LookupRow{kManual | kPac, "@P", "http://@O/missing.pac", nullptr, kUrl, {}, 0, kOpen, nullptr, {"[DEBUG]   AutoConfig URL:http://"
        "@O/missing.pac\n", "[DEBUG]   Bypass proxy server list:<local>\n", "[ERROR]   WinHttpGetProxyForUrl() API failed. Error:12167 "
        "Description:", "[INFO]   Unable to automatically detect proxy information using PAC URL\n"}},
    LookupRow{kPac, "", "http://@O/pac/DIRECT", nullptr, kUrl, {}, 1, kNone},
    // Lists and candidates in order (the last decides the status); default ports; case-insensitive, loosely read tags.
    LookupRow{kManual, "https=@B;http=@P", "", nullptr, kUrl, {}, 0, kOpen},
    LookupRow{kManual, "http=@P;https=@B", "", nullptr, "https://downloads.example/pkg", {}, 2, kNone, nullptr,
        {"[DEBUG]   Discovered proxy server information [server=127.0.0.1 port=#B]\n"}, {"port=#P"}},
    LookupRow{kManual, "ftp=@P", "", nullptr, kUrl, {}, 2, kNone},
    LookupRow{kManual, "127.0.0.1", "", nullptr, "ftp://h/p", {}, 2, kNone, nullptr, {"[DEBUG]   Discovered proxy server information [server=127.0.0.1 port=21]"}},
    LookupRow{kManual, "127.0.0.1", "", nullptr, "gopher://h/p", {}, 2, kNone, nullptr, {"[DEBUG]   Discovered proxy server information [server=127.0.0.1 port=443]"}},
    LookupRow{kManual, "Http=@P;HTTPS=@B", "", nullptr, "HTTP://h/p", {}, 0, kOpen},
    LookupRow{kManual, "http://@P", "", nullptr, kUrl, {}, 2, kNone, nullptr, {"[DEBUG]   Discovered proxy server information [server=//127.0.0.1 port=#P]"}},
    LookupRow{kManual, ";", "", nullptr, kUrl, {}, 0, kNone, nullptr, {"[DEBUG]   Failed while splitting proxy: '' into proxy server and port\n",
        "[INFO]   PMStatus:0\nQuorvel   QrvlProxyManager   [INFO]   Output: [server= serverPort= user= password=**** authScheme=0]\n"}},
    LookupRow{kManual, "@N;@P", "", nullptr, kUrl, {}, 0, kOpen},
    LookupRow{kManual, "@C;@B", "", nullptr, kUrl, {}, 6, kBasic},
    LookupRow{kManual, "@B;@C", "", nullptr, kUrl, {}, 2, kNone},
    LookupRow{kManual, "[::1]:#C;[fe80::1]", "", nullptr, kUrl, {}, 2, kNone, nullptr, {"[DEBUG]   Discovered proxy server information "
        "[server=[::1] port=#C]\n", "[DEBUG]   Discovered proxy server information [server=[fe80::1] port=80]\n", "[DEBUG]   No VALID proxy "
        "servers detected.\n"}},
    LookupRow{kManual, "@P", "", nullptr, "http://downloads.example/" + std::string(3000, 'p'), {}, 2, kNone, nullptr, {"[ERROR]   "
        "WinHttpCrackUrl() API failed. Error:122 Description:", "[INFO]   Input URL:http://downloads.example/" + std::string(988, 'p') + "\n"}},
    // Schemes: Negotiate is answered with NTLM and reported as 4; Digest is 2.
    LookupRow{kManual, "@N", "", nullptr, kUrl + "|CORP\\bob|x", {}, 6, "127.0.0.1:#N (null)/(null) 4", nullptr, {"[DEBUG]   Proxy server "
        "supports AuthScheme:18\n", "[DEBUG]   Trying 2 authentication scheme although proxy server supports 18 authentication scheme\n"}},
    LookupRow{kManual, "@D", "", nullptr, kUrl, {}, 6, "127.0.0.1:#D (null)/(null) 2"},
    // Credentials: the caller's are stored once they worked; stored ones serve the next lookups.
    LookupRow{kManual, "@B", "", nullptr, kUrl + "|alice|S3cret-pw", {}, 0, "127.0.0.1:#B alice/S3cret-pw 1", L"alice/S3cret-pw",
        {"[INFO]   Input password:****\n", "[INFO]   Using invoker provided proxy credentials with user:alice\n", "[INFO]   Performing "
        "'StoreCredentials' for proxy server:127.0.0.1 with user:alice\n", "[INFO]   Successfully stored credential.\n", "[DEBUG]   "
        "Authenticating proxy server detected with credentials [user=alice password=****]\n", "[INFO]   Output: [server=127.0.0.1 "
        "serverPort=#B user=alice password=**** authScheme=1]\n"}},
    LookupRow{kPac, "", "http://@O/pac/PROXY%20@B", L"alice/S3cret-pw", kUrl, {}, 0, "127.0.0.1:#B alice/S3cret-pw 1", nullptr,
        {"[INFO]   Using cached credentials for proxy server:127.0.0.1  user:alice\n"}},
    LookupRow{kManual, "@B", "", L"alice/S3cret-pw", kUrl + "|alice|wrong", {}, 0, "127.0.0.1:#B alice/S3cret-pw 1"},
    LookupRow{kManual, "@B", "", nullptr, kUrl + "|alice|wrong-Pw-77", {}, 6, kBasic, nullptr, {}, {"wrong-Pw-77"}},
    LookupRow{kManual, "@B", "", L"alice/stale", kUrl, {}, 6, kBasic},
    // Wine's dialog answers from the store without a window: endlessly rejected credentials end in an error.
    LookupRow{kManual, "@B", "", L"alice/stale", kUrl + "|||loud", {}, 2, kNone},
    LookupRow{kManual, "@P", "", nullptr, kUrl + "|bob|pw", {}, 0, "127.0.0.1:#P bob/pw 0", L"bob/pw"},
    // Input, and the logger's switch: "TRUE" in any case turns it on, anything else (also unset) off.
    LookupRow{kManual, "@P", "", nullptr, "", {{L"QRVL_ENABLE_DEBUG_STRING", L"true"}}, 4, kNone, nullptr, {"[INFO]   Performing "
        "'GetProxyInfo' API ...\nQuorvel   QrvlProxyManager   [ERROR]   Input data 'UserData.url' is NULL or empty!\nQuorvel   "
        "QrvlProxyManager   [INFO]   PMStatus:4\n"}},
    LookupRow{kManual, "@P", "", nullptr, "(null)", {}, 4, kNone, nullptr, {}, {"Quorvel"}},
    LookupRow{kManual, "@P", "", nullptr, kUrl, {{L"QRVL_ENABLE_DEBUG_STRING", L""}}, 0, kOpen, nullptr, {}, {"Quorvel"}},
    LookupRow{kManual, "@P", "", nullptr, kUrl, {{L"QRVL_ENABLE_DEBUG_STRING", L"yes"}}, 0, kOpen, nullptr, {}, {"Quorvel"}}));


// Worker threads of the library may have small stacks: a long URL or list must not exhaust them.
TEST(ProxyList, LongInputsNeedNoDeepStack)
{
    static std::vector<QRVL::ProxyManager::ProxyCandidate> found;
    HANDLE thread = CreateThread(nullptr, 256 * 1024, [](void*) -> DWORD {
        ProxyManagerImplWin manager;
        manager.SetRequestUrl("HTTP://host/" + std::string(200000, 'u'));
        std::wstring list = L"ftp=f:21;http=" + std::wstring(100000, L'h') + L":8;https=" + std::wstring(100000, L's');
        return manager.FetchServerInfo(list, found) ? 0 : 1;
    }, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    DWORD code = 99;
    EXPECT_TRUE(WaitForSingleObject(thread, 30000) == WAIT_OBJECT_0 && GetExitCodeThread(thread, &code) && code == 0);
    CloseHandle(thread);
    EXPECT_TRUE(found.size() == 1 && found[0].server == std::string(100000, 'h') && found[0].port == "8");
}

// Wine's dialog answers by itself from a stored entry that fits its buffers; a longer stored password makes it ask.
// Answered on the X display by dialog_driver.sh (only in the proxy_dialog_test run).
TEST(ProxyDialog, AnswersTheProxy)
{
    const std::wstring stale = L"alice/" + std::wstring(300, L'x');
    const struct {
        std::string actions; // one per dialog: "type:<user>:<password>" or "cancel"
        const char *user, *password;
        std::wstring stored;
        unsigned status;
        const char* record;
        std::wstring storedAfter; // typed credentials are never stored
    } rows[] = {{"type:alice:S3cret-pw", nullptr, nullptr, L"", 0, "127.0.0.1:#B alice/S3cret-pw 1", L""},
                {"type:alice:S3cret-pw", nullptr, nullptr, stale, 0, "127.0.0.1:#B alice/S3cret-pw 1", stale},
                {"type:alice:wrong-1 type:alice:S3cret-pw", "alice", "wrong-0", L"", 0, "127.0.0.1:#B alice/S3cret-pw 1", L""},
                {"type:CORP\\alice:S3cret-pw", nullptr, nullptr, L"", 0, "127.0.0.1:#B CORP\\alice/S3cret-pw 1", L""},
                {"cancel", nullptr, nullptr, L"", 5, kNone, L""}};
    for (const auto& row : rows) {
        IeSettings ie;
        StoredCredential credential;
        ASSERT_TRUE(ie.apply(kManual, "@B") && (row.stored.empty() || StoredCredential::write(row.stored)));
        const std::wstring status = qvtest::env(L"QVDLM_TEST_WORK") + L"/proxy-dialog.status";
        DeleteFileW((L"Z:" + status).c_str());
        const std::wstring command = L"/bin/sh " + qvtest::env(L"QVDLM_TESTS_DIR") + L"/proxy/dialog_driver.sh " + status + L" " + widen(row.actions);
        ASSERT_NE(start(command, 0).dwProcessId, 0u); // a Unix program: no handle to wait on, it reports through the file
        static std::atomic<bool> answered;
        answered = false;
        std::thread watchdog([] { // closes, after a minute, a dialog nobody answered
            for (int i = 0; i < 900 && !answered; ++i, Sleep(100))
                if (HWND dialog = i > 600 ? FindWindowW(nullptr, L"Connect to 127.0.0.1") : nullptr)
                    PostMessageW(dialog, WM_CLOSE, 0, 0);
        });
        UserData in = {kUrl.c_str(), row.user, row.password, false};
        ProxyInfo out = {};
        EXPECT_EQ(qrvlGetProxyInfo(&in, &out), row.status);
        answered = true, watchdog.join();
        EXPECT_EQ(recordText(out), expand(row.record));
        qrvlProxyDeallocate(&out);
        EXPECT_EQ(StoredCredential::read(), row.storedAfter);
        std::string report;
        for (int i = 0; i < 150 && !(qvtest::readFile(L"Z:" + status, report) && !report.empty()); ++i, Sleep(100)) {}
        EXPECT_EQ(report, "ok\n") << row.actions;
    }
}

} // namespace
