// The real credential dialog, answered on an Xvfb display by xdotool (dialog_driver.sh), for proxies
// that need credentials nobody else could supply. Runs through dialog_session.sh.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <string>
#include <vector>

#include "QrvlProxy.h"
#include "proxy/IeProxySettings.h"
#include "proxy/ProxyTestSupport.h"
#include "support/TestSupport.h"

using namespace proxytest;

namespace {

const std::string kHttpUrl = "http://downloads.example/pkg/file.bin";
constexpr DWORD kDialogBudgetMs = 60000;

std::wstring windowsPath(const std::wstring& unixPath)
{
    std::wstring path = L"Z:" + unixPath;
    for (wchar_t& c : path)
        if (c == L'/')
            c = L'\\';
    return path;
}

// Closes a dialog nobody answered, so that a broken driver fails the test instead of hanging it.
class DialogWatchdog {
public:
    DialogWatchdog() : done_(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    {
        thread_ = CreateThread(nullptr, 0, &DialogWatchdog::watch, this, 0, nullptr);
    }
    ~DialogWatchdog()
    {
        SetEvent(done_);
        if (thread_) {
            WaitForSingleObject(thread_, INFINITE);
            CloseHandle(thread_);
        }
        CloseHandle(done_);
    }
    DialogWatchdog(const DialogWatchdog&) = delete;
    DialogWatchdog& operator=(const DialogWatchdog&) = delete;
    bool fired() const { return fired_; }

private:
    static DWORD WINAPI watch(void* param)
    {
        auto* self = static_cast<DialogWatchdog*>(param);
        if (WaitForSingleObject(self->done_, kDialogBudgetMs) == WAIT_OBJECT_0)
            return 0;
        self->fired_ = true;
        // Keep closing whatever dialog shows until the lookup gives up.
        for (int i = 0; i < 100 && WaitForSingleObject(self->done_, 100) == WAIT_TIMEOUT; ++i) {
            if (HWND dialog = FindWindowW(nullptr, L"Connect to 127.0.0.1"))
                PostMessageW(dialog, WM_CLOSE, 0, 0);
        }
        return 0;
    }

    HANDLE done_;
    HANDLE thread_ = nullptr;
    std::atomic<bool> fired_{false};
};

class ProxyDialogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(ie_.apply(kManualProxy, proxyAt(kBasicProxy)));
        statusUnix_ = qvtest::narrow(qvtest::env(L"QVDLM_TEST_WORK")) + "/proxy-dialog-driver-" +
                      std::to_string(GetCurrentProcessId()) + ".status";
        statusPath_ = windowsPath(qvtest::widen(statusUnix_));
        DeleteFileW(statusPath_.c_str());
    }
    void TearDown() override { DeleteFileW(statusPath_.c_str()); }

    // Starts the driver for the dialogs to come, then runs one lookup that is not silent.
    unsigned lookupAnswering(const std::vector<std::string>& actions, const char* user = nullptr,
                             const char* password = nullptr)
    {
        std::wstring command = L"/bin/sh " + qvtest::env(L"QVDLM_TESTS_DIR") + L"/proxy/dialog_driver.sh " +
                               qvtest::widen(statusUnix_);
        for (const std::string& action : actions)
            command += L" \"" + qvtest::widen(action) + L"\"";
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process = {};
        // A Unix program: Wine starts it but hands back no handle to wait on; it reports through a file.
        if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
            return 1000;
        if (process.hThread)
            CloseHandle(process.hThread);
        if (process.hProcess)
            CloseHandle(process.hProcess);

        UserData in = {kHttpUrl.c_str(), user, password, false};
        DialogWatchdog watchdog;
        const unsigned status = qrvlGetProxyInfo(&in, record_.out());
        watchdogFired_ = watchdog.fired();
        return status;
    }

    // What the driver reported, waiting a little for it to finish.
    std::string driverStatus()
    {
        std::string text;
        for (int i = 0; i < 150; ++i) {
            if (qvtest::readFile(statusPath_, text) && !text.empty())
                return text;
            Sleep(100);
        }
        return "no report";
    }

    static std::wstring stored()
    {
        std::wstring user;
        std::wstring password;
        return readCredential(L"127.0.0.1", user, password) ? user + L"/" + password : L"<none>";
    }

    IeProxySettings ie_;
    CredentialCleanup credentials_{L"127.0.0.1"};
    Record record_;
    std::string statusUnix_;
    std::wstring statusPath_;
    bool watchdogFired_ = false;
};

TEST_F(ProxyDialogTest, MissingCredentialsAreAskedForAndNotStored)
{
    EXPECT_EQ(lookupAnswering({"type:alice:S3cret-pw"}), PM_STATUS_OK);
    EXPECT_FALSE(watchdogFired_);
    EXPECT_EQ(driverStatus(), "ok\n");
    EXPECT_EQ(record_.user(), "alice");
    EXPECT_EQ(record_.password(), kProxyPassword);
    EXPECT_EQ(record_.port(), portText(kBasicProxy));
    EXPECT_EQ(record_.info.authScheme, PROXY_AUTH_BASIC);
    EXPECT_EQ(stored(), L"<none>");
}

// Wine's dialog answers by itself from any stored entry for the target that fits its buffers (Windows
// only does so for domain credentials); a stored password longer than those buffers makes it ask.
TEST_F(ProxyDialogTest, RejectedStoredCredentialsLeadToTheDialog)
{
    const std::wstring stale(300, L'x');
    ASSERT_TRUE(writeCredential(L"127.0.0.1", L"alice", stale));
    EXPECT_EQ(lookupAnswering({"type:alice:S3cret-pw"}), PM_STATUS_OK);
    EXPECT_FALSE(watchdogFired_);
    EXPECT_EQ(driverStatus(), "ok\n");
    EXPECT_EQ(record_.user(), "alice");
    EXPECT_EQ(record_.password(), kProxyPassword);
    // Typed credentials are not kept.
    EXPECT_EQ(stored(), L"alice/" + stale);
}

TEST_F(ProxyDialogTest, RejectedTypedCredentialsBringTheDialogBack)
{
    EXPECT_EQ(lookupAnswering({"type:alice:wrong-1", "type:alice:S3cret-pw"}, "alice", "wrong-0"), PM_STATUS_OK);
    EXPECT_FALSE(watchdogFired_);
    EXPECT_EQ(driverStatus(), "ok\n");
    EXPECT_EQ(record_.user(), "alice");
    EXPECT_EQ(record_.password(), kProxyPassword);
    EXPECT_EQ(stored(), L"<none>");
}

TEST_F(ProxyDialogTest, UserTypedWithDomainKeepsIt)
{
    EXPECT_EQ(lookupAnswering({"type:CORP\\alice:S3cret-pw"}), PM_STATUS_OK);
    EXPECT_FALSE(watchdogFired_);
    EXPECT_EQ(driverStatus(), "ok\n");
    EXPECT_EQ(record_.user(), "CORP\\alice");
}

TEST_F(ProxyDialogTest, CancellingTheDialogGivesStatus5)
{
    EXPECT_EQ(lookupAnswering({"cancel"}), PM_STATUS_USER_CANCELLED);
    EXPECT_FALSE(watchdogFired_);
    EXPECT_EQ(driverStatus(), "ok\n");
    EXPECT_EQ(record_.info.server, nullptr);
    EXPECT_EQ(record_.info.user, nullptr);
    EXPECT_EQ(record_.info.authScheme, 0u);
}

} // namespace
