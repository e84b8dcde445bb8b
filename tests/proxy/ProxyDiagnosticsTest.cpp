// What the proxy lookup writes to the debugger output: a probe program does one lookup through the
// exported functions and runs under the debug-capture helper, which collects its debug strings.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "QrvlProxy.h"
#include "proxy/IeProxySettings.h"
#include "proxy/ProxyTestSupport.h"
#include "support/TestSupport.h"

using namespace proxytest;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char kPrefix[] = "Quorvel   QrvlProxyManager   ";
const std::string kHttpUrl = "http://downloads.example/pkg/file.bin";

std::wstring programDir()
{
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dir(path, n);
    return dir.substr(0, dir.find_last_of(L"\\/"));
}

std::wstring quote(const std::wstring& text) { return L"\"" + text + L"\""; }

struct Captured {
    DWORD exitCode = 0xFFFFFFFF;
    std::string text;

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
};

class ProxyDiagnosticsTest : public ::testing::Test {
protected:
    using Env = std::vector<std::pair<std::wstring, std::wstring>>;

    // Runs the probe with the given arguments and variables (an empty value removes the variable).
    Captured run(const std::vector<std::string>& args, const Env& env = {{L"QRVL_ENABLE_DEBUG_STRING", L"TRUE"}})
    {
        Captured result;
        std::vector<std::pair<std::wstring, std::wstring>> saved;
        for (const auto& [name, value] : env) {
            saved.emplace_back(name, qvtest::env(name.c_str()));
            SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());
        }
        const std::wstring dir = programDir();
        const std::wstring output = scratch_ / L"captured.txt";
        std::wstring command = quote(dir + L"\\proxy_debug_capture.exe") + L" " + quote(output) + L" " +
                               quote(dir + L"\\proxy_log_probe.exe");
        for (const std::string& arg : args)
            command += L" " + quote(qvtest::widen(arg));

        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process = {};
        if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                           &process)) {
            if (WaitForSingleObject(process.hProcess, 60000) == WAIT_OBJECT_0)
                GetExitCodeProcess(process.hProcess, &result.exitCode);
            else
                TerminateProcess(process.hProcess, 1);
            CloseHandle(process.hThread);
            CloseHandle(process.hProcess);
        }
        for (const auto& [name, value] : saved)
            SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());
        qvtest::readFile(output, result.text);
        DeleteFileW(output.c_str());
        return result;
    }

    static Env loggerOn(Env more = {})
    {
        more.emplace_back(L"QRVL_ENABLE_DEBUG_STRING", L"TRUE");
        return more;
    }

    static std::string line(const char* tag, const std::string& message)
    {
        return std::string(kPrefix) + tag + "   " + message + "\n";
    }

    qvtest::ScratchDir scratch_{L"proxy-diagnostics"};
    IeProxySettings ie_;
    CredentialCleanup credentials_{L"127.0.0.1"};
};

// --- the switch ---

TEST_F(ProxyDiagnosticsTest, LinesCarryTheFixedPrefixAndLevelTag)
{
    const Captured c = run({"--empty-url"}, {{L"QRVL_ENABLE_DEBUG_STRING", L"true"}});
    ASSERT_EQ(c.exitCode, PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(c.text, line("[INFO]", "Performing 'GetProxyInfo' API ...") +
                          line("[ERROR]", "Input data 'UserData.url' is NULL or empty!") + line("[INFO]", "PMStatus:4"));
}

TEST_F(ProxyDiagnosticsTest, NothingIsWrittenWhenTheVariableIsUnsetOrNotTrue)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kOpenProxy)));
    for (const wchar_t* value : {L"", L"FALSE", L"1", L"yes"}) {
        const Captured c = run({kHttpUrl}, {{L"QRVL_ENABLE_DEBUG_STRING", value}});
        EXPECT_EQ(c.exitCode, PM_STATUS_OK) << qvtest::narrow(value);
        EXPECT_EQ(c.text, "") << qvtest::narrow(value);
    }
    // The same lookup with the logger on does write, so silence above is not a broken capture.
    EXPECT_THAT(run({kHttpUrl}).text, HasSubstr(line("[INFO]", "PMStatus:0")));
}

TEST_F(ProxyDiagnosticsTest, NullInputLogsNothing)
{
    const Captured c = run({"--null"});
    EXPECT_EQ(c.exitCode, PM_STATUS_INVALID_INPUT);
    EXPECT_EQ(c.text, "");
}

// --- passwords ---

TEST_F(ProxyDiagnosticsTest, PasswordsAreMaskedInEveryLine)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
    const std::string output = "Output: [server=127.0.0.1 serverPort=" + portText(kBasicProxy) +
                               " user=alice password=**** authScheme=1]";

    Captured c = run({kHttpUrl, "--user", "alice", "--password", "wrong-Pw-77", "--silent"});
    EXPECT_EQ(c.exitCode, PM_STATUS_SILENT_MODE_ERROR);
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Input password:****")));
    EXPECT_THAT(c.text, HasSubstr(line("[ERROR]", "PM_STATUS_SILENT_MODE_ERROR - Application running under Silent "
                                                  "Mode and it requires proxy server credentials.")));
    EXPECT_THAT(c.text, Not(HasSubstr("wrong-Pw-77")));

    c = run({kHttpUrl, "--user", "alice", "--password", kProxyPassword, "--silent"});
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Using invoker provided proxy credentials with user:alice")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Performing 'StoreCredentials' for proxy server:127.0.0.1 with "
                                                 "user:alice")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Successfully stored credential.")));
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Authenticating proxy server detected with credentials "
                                                  "[user=alice password=****]")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", output)));
    EXPECT_THAT(c.text, Not(HasSubstr(kProxyPassword)));

    // Found in the store by the next lookup.
    c = run({kHttpUrl, "--silent"});
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Using cached credentials for proxy server:127.0.0.1  user:alice")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", output)));
    EXPECT_THAT(c.text, Not(HasSubstr(kProxyPassword)));
}

// --- discovery messages ---

TEST_F(ProxyDiagnosticsTest, WpadIsSkippedWhenTheVariableSaysFalse)
{
    ASSERT_TRUE(ie_.apply(kAutoDetect | kManualProxy, proxyAt(kOpenProxy)));
    const Captured c = run({kHttpUrl}, loggerOn({{L"QRVL_QRVL_WPAD_PROXY_CHECK", L"false"}}));
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "AutoDetect:1")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "WDAP proxy check is disabled, skipping WPAD based proxy discovery.")));
    EXPECT_THAT(c.text, Not(HasSubstr("Discovering WDAP")));
    EXPECT_THAT(c.text, Not(HasSubstr("AutoDetectProxyInfo")));
}

TEST_F(ProxyDiagnosticsTest, WpadRunsWhenTheVariableSaysAnythingElse)
{
    ASSERT_TRUE(ie_.apply(kAutoDetect | kManualProxy, proxyAt(kOpenProxy)));
    const Captured c = run({kHttpUrl}, loggerOn({{L"QRVL_QRVL_WPAD_PROXY_CHECK", L"yes"}}));
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Discovering WDAP based proxy setting ... (this may take several "
                                                 "seconds)")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Unable to automatically detect proxy information using WPAD")));
    EXPECT_THAT(c.text, HasSubstr("[server=127.0.0.1 serverPort=" + portText(kOpenProxy)));
}

TEST_F(ProxyDiagnosticsTest, FailingPacScriptIsReportedAndLeavesTheManualProxy)
{
    const std::string missing = "http://127.0.0.1:" + portText(kOrigin) + "/missing.pac";
    ASSERT_TRUE(ie_.apply(kPacUrl | kManualProxy, proxyAt(kOpenProxy), "<local>", missing));
    const Captured c = run({kHttpUrl});
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "AutoConfig URL:" + missing)));
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Bypass proxy server list:<local>")));
    EXPECT_THAT(c.text, HasSubstr(std::string(kPrefix) +
                                  "[ERROR]   WinHttpGetProxyForUrl() API failed. Error:12167 Description:"));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Unable to automatically detect proxy information using PAC URL")));
}

std::string systemText(DWORD error)
{
    wchar_t* text = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                   error, 0x400, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring wide = text ? text : L"";
    LocalFree(text);
    while (!wide.empty() && (wide.back() == L'\n' || wide.back() == L'\r' || wide.back() == L' '))
        wide.pop_back();
    return qvtest::narrow(wide);
}

// A URL path longer than the probe's buffer makes WinHttpCrackUrl fail with a plain system error, and
// the URL's own line is cut at the message size.
TEST_F(ProxyDiagnosticsTest, FailedSystemCallIsReportedWithNumberAndSystemText)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kOpenProxy)));
    const std::string url = "http://downloads.example/" + std::string(3000, 'p');
    const Captured c = run({url});
    EXPECT_EQ(c.exitCode, PM_STATUS_ERROR);
    const std::string text = systemText(ERROR_INSUFFICIENT_BUFFER);
    ASSERT_FALSE(text.empty());
    EXPECT_THAT(c.text, HasSubstr(line("[ERROR]", "WinHttpCrackUrl() API failed. Error:122 Description:" + text)));

    const std::string urlLine = std::string(kPrefix) + "[INFO]   Input URL:" + url.substr(0, 1023 - 10) + "\n";
    EXPECT_THAT(c.text, HasSubstr(urlLine));
}

TEST_F(ProxyDiagnosticsTest, NoConfigurationAnywhereIsStatus1)
{
    ASSERT_TRUE(ie_.apply(kDirect));
    const Captured c = run({kHttpUrl});
    EXPECT_EQ(c.exitCode, PM_STATUS_NO_PROXY_CONFIGURATION);
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Unable to detect proxy information from IE settings. Trying to get "
                                                 "proxy information using default proxy configuration ...")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Unable to detect proxy information from default proxy "
                                                 "configuration") +
                                  line("[INFO]", "No proxy server configuration detected.")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "PMStatus:1")));
    EXPECT_THAT(c.text, Not(HasSubstr("Output:")));
}

TEST_F(ProxyDiagnosticsTest, DefaultConfigurationComesFromTheHttpProxyVariable)
{
    ASSERT_TRUE(ie_.apply(kDirect));
    const Captured c = run({kHttpUrl}, loggerOn({{L"http_proxy", qvtest::widen(proxyAt(kOpenProxy))}}));
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Proxy server list:" + proxyAt(kOpenProxy))));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "Output: [server=127.0.0.1 serverPort=" + portText(kOpenProxy) +
                                                     " user= password=**** authScheme=0]")));
}

TEST_F(ProxyDiagnosticsTest, ListWithoutCandidatesPrintsAnEmptyRecord)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, ";"));
    const Captured c = run({kHttpUrl});
    EXPECT_EQ(c.exitCode, PM_STATUS_OK);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Failed while splitting proxy: '' into proxy server and port")));
    EXPECT_THAT(c.text, HasSubstr(line("[INFO]", "PMStatus:0") +
                                  line("[INFO]", "Output: [server= serverPort= user= password=**** authScheme=0]")));
}

TEST_F(ProxyDiagnosticsTest, IPv6CandidatesKeepTheirBrackets)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, "[::1]:" + portText(kClosedPort) + ";[fe80::1]"));
    const Captured c = run({kHttpUrl});
    EXPECT_EQ(c.exitCode, PM_STATUS_ERROR);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Discovered proxy server information [server=[::1] port=" +
                                                      portText(kClosedPort) + "]")));
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Discovered proxy server information [server=[fe80::1] port=80]")));
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "No VALID proxy servers detected.")));
}

TEST_F(ProxyDiagnosticsTest, HttpsUrlTakesTheHttpsEntry)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, "http=" + proxyAt(kOpenProxy) + ";https=" + proxyAt(kBasicProxy)));
    const Captured c = run({"https://downloads.example/pkg", "--silent"});
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Discovered proxy server information [server=127.0.0.1 port=" +
                                                      portText(kBasicProxy) + "]")));
    EXPECT_THAT(c.text, Not(HasSubstr("port=" + portText(kOpenProxy))));
}

TEST_F(ProxyDiagnosticsTest, NegotiateOfferIsAnsweredWithNtlm)
{
    ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kNtlmProxy)));
    const Captured c = run({kHttpUrl, "--user", "CORP\\bob", "--password", "x", "--silent"});
    EXPECT_EQ(c.exitCode, PM_STATUS_SILENT_MODE_ERROR);
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Proxy server supports AuthScheme:18")));
    EXPECT_THAT(c.text, HasSubstr(line("[DEBUG]", "Trying 2 authentication scheme although proxy server supports 18 "
                                                  "authentication scheme")));
}

} // namespace
