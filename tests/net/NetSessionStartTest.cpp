// Starting the NetSession client when no installer lies beside the program: the sessions StartAkamai
// makes, keeps and gives up.
#include "NetSessionTestSupport.h"

#include "StartAkamai.h"
#include "support/TestSupport.h"

using namespace nstest;
using ::testing::ElementsAre;

namespace {

class StartAkamaiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded());
        module.reset();
        liveBefore = module.liveSessions();
        SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", (scratch / L"installer-ran").c_str());
    }
    void TearDown() override
    {
        SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", nullptr);
        for (const std::string& line : module.journal())
            EXPECT_EQ(line.find("unstopped"), std::string::npos) << line;
    }

    NetSessionDouble module;
    qvtest::ScratchDir scratch{L"start-akamai"};
    int liveBefore = 0;
};

TEST_F(StartAkamaiTest, RunningClientKeepsItsFirstSessionAlive)
{
    EXPECT_TRUE(StartAkamai());
    EXPECT_THAT(module.journal(), ElementsAre("#1 create QvDLMgr|(null)|(null)", "#1 getLastError"));
    EXPECT_EQ(module.liveSessions(), liveBefore + 1);
}

TEST_F(StartAkamaiTest, NoSessionAtAllAnswersFalseAtOnce)
{
    module.script("create=0");
    EXPECT_FALSE(StartAkamai());
    EXPECT_THAT(module.journal(), ElementsAre("#1 create QvDLMgr|(null)|(null) -> null"));
}

TEST_F(StartAkamaiTest, RetriesWithFreshSessionsUntilOneIsUsable)
{
    module.script("error=4 ; error=4 ; error=0");
    EXPECT_TRUE(StartAkamai());
    EXPECT_THAT(module.journal(),
                ElementsAre("#1 create QvDLMgr|(null)|(null)", "#1 getLastError", "#1 needsInstall", "#1 stop 0",
                            "#1 destroy", "#2 create QvDLMgr|(null)|(null)", "#2 getLastError", "#2 stop 0", "#2 destroy",
                            "#3 create QvDLMgr|(null)|(null)", "#3 getLastError"));
    EXPECT_EQ(module.liveSessions(), liveBefore + 1);
    EXPECT_FALSE(qvtest::fileExists(scratch / L"installer-ran"));
}

TEST_F(StartAkamaiTest, GivesUpAfterTenMoreAttempts)
{
    module.script("error=4");
    EXPECT_FALSE(StartAkamai());
    size_t creates = 0;
    for (const std::string& line : module.journal())
        creates += line.find(" create ") != std::string::npos;
    EXPECT_EQ(creates, 11u);
    EXPECT_EQ(module.liveSessions(), liveBefore);
}

TEST_F(StartAkamaiTest, InstallerAskedForButNotBesideTheProgramIsNotRun)
{
    module.script("error=4 install=1 ; error=0");
    EXPECT_TRUE(StartAkamai());
    EXPECT_FALSE(qvtest::fileExists(scratch / L"installer-ran"));
    EXPECT_EQ(module.journal("#2 create").size(), 1u);
}

} // namespace
