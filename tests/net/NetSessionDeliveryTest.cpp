// A download's NetSession session against the scripted QvDownload.dll double: which URL the source gets,
// how every session error is answered, and the session calls of pause, resume, abort, start and the end.
#include "NetSessionTestSupport.h"

#include "net/NetSessionDelivery.h"

#include <algorithm>

using namespace nstest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::_;

namespace {

const std::wstring kOrigin = L"http://127.0.0.1:19301/pkg/setup.exe?authparam=0a0b";
const std::string kOriginUtf8 = "http://127.0.0.1:19301/pkg/setup.exe?authparam=0a0b";

class NetSessionDeliveryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded()) << "QvDownload.dll double not found beside the test";
        module.reset();
        liveBefore = module.liveSessions();
        request.setUseAkamai(true);
    }
    void TearDown() override
    {
        delivery.shutdown();
        // Every session the library made went back stopped, and no call landed in an unused slot.
        for (const std::string& line : module.journal()) {
            EXPECT_EQ(line.find("unstopped"), std::string::npos) << line;
            EXPECT_EQ(line.find(" slot "), std::string::npos) << line;
        }
        EXPECT_EQ(module.liveSessions(), liveBefore);
    }

    std::vector<std::string> sessionCalls(int n) { return module.journal("#" + std::to_string(n) + " "); }

    NetSessionDouble module;
    int liveBefore = 0;
    BlockRequest request{{kOrigin}, {L"SESSION_ID=x&y=1"}};
    JobDouble job{request};
    EventRecorder events;
    qv::NetSessionDelivery delivery;
};

TEST_F(NetSessionDeliveryTest, WithoutDeliveryTheSessionLibraryIsNotCalledAndThePlainUrlIsUsed)
{
    request.setUseAkamai(false);
    EXPECT_CALL(job, setUseAkamai(_, _)).Times(0);
    const wchar_t* url = delivery.initUrl(job);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(std::wstring(url), kOrigin + L"&SESSION_ID=x&y=1");
    EXPECT_THAT(module.journal(), IsEmpty());
    EXPECT_FALSE(delivery.active());
    EXPECT_EQ(job.status, 0u);
}

TEST_F(NetSessionDeliveryTest, UsableSessionServesTheBlockLocally)
{
    const wchar_t* url = delivery.initUrl(job);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_TRUE(delivery.active());
    EXPECT_TRUE(request.getUseAkamai());
    EXPECT_EQ(job.status, 0u);
    EXPECT_THAT(sessionCalls(1), ElementsAre("#1 create QVDLM|" + kOriginUtf8 + "|SESSION_ID=x&y=1", "#1 getLastError",
                                             "#1 resume null", "#1 getState"));
    EXPECT_THAT(events.events(), IsEmpty());
}

TEST_F(NetSessionDeliveryTest, SessionContentIsUtf8AndMissingQueryStaysNull)
{
    BlockRequest wide{{L"http://127.0.0.1:19301/d\u00e9j\u00e0/\u65e5\u672c.bin"}};
    wide.setUseAkamai(true);
    JobDouble wideJob{wide};
    delivery.initUrl(wideJob);
    EXPECT_THAT(module.journal("#1 create"),
                ElementsAre("#1 create QVDLM|http://127.0.0.1:19301/d\xc3\xa9j\xc3\xa0/\xe6\x97\xa5\xe6\x9c\xac.bin|(null)"));
}

TEST_F(NetSessionDeliveryTest, SessionThatCannotBeMadeSwitchesToPlainHttpWithoutStoring)
{
    module.script("create=0");
    EXPECT_CALL(job, setUseAkamai(false, false)).Times(1);
    EXPECT_CALL(job, setUseAkamai(_, true)).Times(0);
    const wchar_t* url = delivery.initUrl(job);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(std::wstring(url), kOrigin + L"&SESSION_ID=x&y=1");
    EXPECT_FALSE(request.getUseAkamai());
    EXPECT_FALSE(delivery.active());
    EXPECT_THAT(module.journal("#"), ElementsAre("#1 create QVDLM|" + kOriginUtf8 + "|SESSION_ID=x&y=1 -> null"));
    EXPECT_THAT(events.events(), IsEmpty());
}

TEST_F(NetSessionDeliveryTest, SessionWithAnErrorFromTheStartIsStoppedDestroyedAndDropped)
{
    module.script("error=7");
    EXPECT_CALL(job, setUseAkamai(false, false)).Times(1);
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), kOrigin + L"&SESSION_ID=x&y=1");
    EXPECT_THAT(sessionCalls(1), ElementsAre(::testing::StartsWith("#1 create"), "#1 getLastError", "#1 stop 0", "#1 destroy"));
    EXPECT_FALSE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, NetworkErrorIsReportedAndTheSessionUsed)
{
    module.script("resume=-1 error=0,5");
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_TRUE(delivery.active());
    EXPECT_THAT(events.events(), ElementsAre(RecordedEvent{&job, qvdlm::event::StatusMessage, qvdlm::msg::NetworkError, {}}));
    EXPECT_EQ(job.status, 0u);
}

class DiskErrorTest : public NetSessionDeliveryTest, public ::testing::WithParamInterface<int> {};

TEST_P(DiskErrorTest, IsReportedAsOutOfDiskSpaceAndTheSessionUsed)
{
    const std::string script = "resume=-1 error=0," + std::to_string(GetParam());
    module.script(script.c_str());
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_THAT(events.events(), ElementsAre(RecordedEvent{&job, qvdlm::event::StatusMessage, qvdlm::msg::OutOfDiskSpace, {}}));
}

INSTANTIATE_TEST_SUITE_P(Errors6And12, DiskErrorTest, ::testing::Values(6, 12));

TEST_F(NetSessionDeliveryTest, Error13IsQuietAndTheSessionUsed)
{
    module.script("resume=-1 error=0,13");
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_THAT(events.events(), IsEmpty());
    EXPECT_TRUE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, OtherErrorsAreReportedAsTextAndErrorAndTheSessionUsed)
{
    module.script("resume=-1 error=0,42");
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_THAT(events.events(),
                ElementsAre(RecordedEvent{&job, qvdlm::event::Information, 0,
                                          L"DownloadImp::initUrl: createAkamaiNetSession failed. net session error: 42"},
                            RecordedEvent{&job, qvdlm::event::Error, 42, {}}));
}

TEST_F(NetSessionDeliveryTest, ProxyAuthenticationMakesANewSessionAtOnce)
{
    module.script("resume=-1 error=0,10 ; resume=0");
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), std::wstring(kServePrefix) + kOrigin);
    EXPECT_EQ(job.status, qvdlm::status::ProxyAuthRequired);
    EXPECT_THAT(events.events(),
                ElementsAre(RecordedEvent{&job, qvdlm::event::StatusMessage, qvdlm::msg::ProxyNeedAuthentication, {}}));
    // The first session is gone before the second is made.
    EXPECT_THAT(module.journal("#"),
                ElementsAre(::testing::StartsWith("#1 create"), "#1 getLastError", "#1 resume null", "#1 getLastError",
                            "#1 stop 0", "#1 destroy", ::testing::StartsWith("#2 create"), "#2 getLastError",
                            "#2 resume null", "#2 getState"));
    EXPECT_TRUE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, ProxyAuthenticationNobodyAnswersEndsInPlainHttp)
{
    module.script("resume=-1 error=0,10");
    EXPECT_CALL(job, setUseAkamai(false, false)).Times(1);
    const wchar_t* url = delivery.initUrl(job);
    EXPECT_EQ(std::wstring(url), kOrigin + L"&SESSION_ID=x&y=1");
    size_t creates = 0;
    for (const std::string& line : module.journal())
        creates += line.find(" create ") != std::string::npos;
    EXPECT_EQ(creates, static_cast<size_t>(qv::NetSessionDelivery::kMaxProxyAuthRounds));
    EXPECT_EQ(events.events().size(), static_cast<size_t>(qv::NetSessionDelivery::kMaxProxyAuthRounds));
    EXPECT_FALSE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, BusySessionIsPausedUntilItLeavesTheBusyState)
{
    module.script("state=3,3,3,0 pause=0");
    delivery.initUrl(job);
    EXPECT_THAT(sessionCalls(1), ElementsAre(::testing::StartsWith("#1 create"), "#1 getLastError", "#1 resume null",
                                             "#1 getState", "#1 getState", "#1 pause", "#1 getState", "#1 pause",
                                             "#1 getState"));
    EXPECT_TRUE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, BusySessionPollingEndsWhenPauseAnswersAllOnes)
{
    module.script("state=3 pause=0,-1");
    delivery.initUrl(job);
    EXPECT_THAT(sessionCalls(1), ElementsAre(::testing::StartsWith("#1 create"), "#1 getLastError", "#1 resume null",
                                             "#1 getState", "#1 getState", "#1 pause", "#1 getState", "#1 pause"));
}

TEST_F(NetSessionDeliveryTest, OneBusyAnswerIsNotPolled)
{
    module.script("state=3,0");
    delivery.initUrl(job);
    EXPECT_THAT(sessionCalls(1), ElementsAre(::testing::StartsWith("#1 create"), "#1 getLastError", "#1 resume null",
                                             "#1 getState", "#1 getState"));
}

TEST_F(NetSessionDeliveryTest, NewUrlReplacesTheEarlierSessionAndClearsTheStatus)
{
    delivery.initUrl(job);
    job.status = qvdlm::status::NetworkError;
    request.setBlockId(0);
    delivery.initUrl(job);
    EXPECT_EQ(job.status, 0u);
    const std::vector<std::string> calls = module.journal("#");
    const auto destroyed = std::find(calls.begin(), calls.end(), "#1 destroy");
    const auto second = std::find_if(calls.begin(), calls.end(), [](const std::string& l) { return l.rfind("#2 create", 0) == 0; });
    ASSERT_NE(destroyed, calls.end());
    ASSERT_NE(second, calls.end());
    EXPECT_LT(destroyed, second);
    EXPECT_EQ(module.liveSessions(), liveBefore + 1);
}

TEST_F(NetSessionDeliveryTest, DownloadOperationsReachTheirSlots)
{
    module.script("stop=0,1 resume=0,0,5");
    delivery.initUrl(job);
    module.clearJournal();
    delivery.pause();
    EXPECT_EQ(delivery.resume(), 0u);
    EXPECT_EQ(delivery.resume(), 5u);
    EXPECT_EQ(delivery.abort(true), 0u);
    EXPECT_EQ(delivery.abort(false), 1u);
    EXPECT_EQ(delivery.lastError(), 0u);
    EXPECT_THAT(module.journal(), ElementsAre("#1 pause", "#1 resume null", "#1 resume null", "#1 stop 1", "#1 stop 0",
                                              "#1 getLastError"));
}

TEST_F(NetSessionDeliveryTest, WithoutASessionTheOperationsDoNothing)
{
    request.setUseAkamai(false);
    delivery.initUrl(job);
    delivery.pause();
    EXPECT_EQ(delivery.resume(), 0u);
    EXPECT_EQ(delivery.abort(true), 0u);
    EXPECT_EQ(delivery.lastError(), 0u);
    delivery.finish(request, qvdlm::state::Completed);
    EXPECT_THAT(module.journal(), IsEmpty());
}

TEST_F(NetSessionDeliveryTest, CompletedSingleFilePackageReleasesWithNull)
{
    delivery.initUrl(job);
    module.clearJournal();
    delivery.finish(request, qvdlm::state::Completed);
    EXPECT_THAT(module.journal(), ElementsAre("#1 release (null)", "#1 stop 0", "#1 destroy"));
    EXPECT_FALSE(delivery.active());
}

TEST_F(NetSessionDeliveryTest, ExitingDownloadPausesTheSessionAndReleasesNothing)
{
    delivery.initUrl(job);
    module.clearJournal();
    delivery.finish(request, qvdlm::state::Exiting);
    EXPECT_THAT(module.journal(), ElementsAre("#1 pause", "#1 stop 0", "#1 destroy"));
}

class MultiBlockReleaseTest : public NetSessionDeliveryTest {
protected:
    BlockRequest blocks{{L"http://127.0.0.1:19301/p/pkg_001_003.sfx.exe?authparam=1_aa",
                         L"http://127.0.0.1:19301/p/pkg_002_003.sfx.exe?authparam=1_bb",
                         L"http://127.0.0.1:19301/p/pkg_003_003.sfx.exe?authparam=1_cc"},
                        {L"SESSION_ID=x_001_003", L"SESSION_ID=x_002_003", L"SESSION_ID=x_003_003"}};
    JobDouble blocksJob{blocks};

    void startAtLastBlock()
    {
        blocks.setUseAkamai(true);
        blocks.setBlockId(2);
        delivery.initUrl(blocksJob);
        module.clearJournal();
    }
    std::vector<std::string> expectedReleases(const char* tail)
    {
        return {"#1 release http://127.0.0.1:19301/p/pkg_001_003.sfx.exe?authparam=1_aa",
                "#1 release http://127.0.0.1:19301/p/pkg_002_003.sfx.exe?authparam=1_bb",
                "#1 release http://127.0.0.1:19301/p/pkg_003_003.sfx.exe?authparam=1_cc", tail};
    }
};

TEST_F(MultiBlockReleaseTest, CompletedPackageReleasesEveryBlockByItsOriginUrl)
{
    startAtLastBlock();
    delivery.finish(blocks, qvdlm::state::Completed);
    std::vector<std::string> expected = expectedReleases("#1 stop 0");
    expected.push_back("#1 destroy");
    EXPECT_EQ(module.journal(), expected);
    EXPECT_EQ(blocks.getBlockId(), 0);
    EXPECT_TRUE(blocks.getUseAkamai());
}

TEST_F(MultiBlockReleaseTest, AbortedPackageReleasesToo)
{
    startAtLastBlock();
    delivery.finish(blocks, qvdlm::state::Aborted);
    EXPECT_EQ(module.journal("#1 release").size(), 3u);
}

TEST_F(MultiBlockReleaseTest, AfterAFallbackTheOriginUrlsAreStillReleased)
{
    startAtLastBlock();
    EXPECT_CALL(blocksJob, setUseAkamai(false, true)).Times(1);
    qv::NetSessionDelivery::fallBackToHttp(blocksJob);
    ASSERT_FALSE(blocks.getUseAkamai());
    delivery.finish(blocks, qvdlm::state::Completed);
    EXPECT_THAT(module.journal("#1 release"), ElementsAre(expectedReleases("").at(0), expectedReleases("").at(1),
                                                           expectedReleases("").at(2)));
    EXPECT_FALSE(blocks.getUseAkamai());
    EXPECT_EQ(blocks.getBlockId(), 0);
}

TEST_F(MultiBlockReleaseTest, SessionOfALaterBlockGetsThatBlocksUrlAndTheFirstQuery)
{
    startAtLastBlock();
    EXPECT_THAT(module.journal(), IsEmpty());
    module.clearJournal();
    blocks.setBlockId(1);
    EXPECT_EQ(std::wstring(delivery.initUrl(blocksJob)),
              std::wstring(kServePrefix) + L"http://127.0.0.1:19301/p/pkg_002_003.sfx.exe?authparam=1_bb");
    EXPECT_THAT(module.journal("#2 create"),
                ElementsAre("#2 create QVDLM|http://127.0.0.1:19301/p/pkg_002_003.sfx.exe?authparam=1_bb|SESSION_ID=x_001_003"));
}

} // namespace
