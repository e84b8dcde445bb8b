// StartAkamai, called through QvDLM.dll, with the installer stand-in "NSSetup.exe" beside the program:
// the installer is run from the program's folder when the client asks for it, and waited for.
#include "NetSessionTestSupport.h"

#include "StartAkamai.h"
#include "support/TestSupport.h"

using namespace nstest;

namespace {

std::wstring programFolder()
{
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

class NetSessionSetupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded());
        ASSERT_TRUE(qvtest::fileExists(programFolder() + L"\\NSSetup.exe"));
        module.reset();
        SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", marker.c_str());
    }
    void TearDown() override { SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", nullptr); }

    NetSessionDouble module;
    qvtest::ScratchDir scratch{L"netsession-setup"};
    std::wstring marker = scratch / L"installer-ran";
};

TEST_F(NetSessionSetupTest, InstallerBesideTheProgramRunsToItsEndBeforeTheRetries)
{
    module.script("error=4 install=1 ; error=0");
    EXPECT_TRUE(StartAkamai());
    // The stand-in writes its mark only after a pause: it is there because the call waited.
    std::string ran;
    ASSERT_TRUE(qvtest::readFile(marker, ran));
    const std::wstring installer(reinterpret_cast<const wchar_t*>(ran.data()), ran.size() / sizeof(wchar_t));
    EXPECT_EQ(_wcsicmp(installer.c_str(), (programFolder() + L"\\NSSetup.exe").c_str()), 0)
        << qvtest::narrow(installer);
    EXPECT_THAT(module.journal(),
                ::testing::ElementsAre("#1 create QvDLMgr|(null)|(null)", "#1 getLastError", "#1 needsInstall",
                                       "#1 stop 0", "#1 destroy", "#2 create QvDLMgr|(null)|(null)", "#2 getLastError"));
}

TEST_F(NetSessionSetupTest, InstallerIsNotRunWhenTheClientDoesNotAskForIt)
{
    module.script("error=4 install=0 ; error=0");
    EXPECT_TRUE(StartAkamai());
    EXPECT_FALSE(qvtest::fileExists(marker));
}

TEST_F(NetSessionSetupTest, RunningClientNeedsNoInstaller)
{
    EXPECT_TRUE(StartAkamai());
    EXPECT_FALSE(qvtest::fileExists(marker));
    EXPECT_THAT(module.journal(), ::testing::ElementsAre("#1 create QvDLMgr|(null)|(null)", "#1 getLastError"));
}

} // namespace
