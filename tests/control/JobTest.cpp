// The download job driven with stand-in stages: pipeline shapes, the state machine, commands to the
// control thread, worker exit codes, stop with and without discard and the final clean-up.
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "FakePipeline.h"
#include "support/FakeRequest.h"
#include "FakeStore.h"
#include "QvDLMCodes.h"
#include "control/DownloadImp.h"
#include "support/TestSupport.h"

using namespace qvdlm;

namespace {

FakeStore* g_store = nullptr;
DownloadRequestLog* fakeStore() { return g_store; }

class JobTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_store = &store;
        dest = scratch / L"QV_work.tmp";
        checkpoints = scratch / L"chk";
    }
    void TearDown() override { g_store = nullptr; }

    FakeRequest* newRequest(const std::wstring& file = L"pkg.bin")
    {
        auto* r = new FakeRequest(L"http://localhost:1/files/" + file);
        r->setDestDir(dest.c_str());
        r->setCheckpointDir(checkpoints.c_str());
        return r;
    }
    std::unique_ptr<DownloadImp, void (*)(DownloadImp*)> newJob(FakeRequest* r, bool withStore = true)
    {
        env = fakeEnvironment(&stages, withStore ? &fakeStore : nullptr);
        return {makeDownload(r, nullptr, env), [](DownloadImp* d) { delete d; }};
    }
    static bool waitState(Download* d, uint32_t s) { return waitUntil([&] { return d->getState() == s; }); }

    qvtest::ScratchDir scratch{L"control-job"};
    std::wstring dest, checkpoints;
    FakeStore store;
    FakeStages stages;
    JobEnvironment env;
    EventRecorder events;
};

TEST_F(JobTest, PlainFileGetsSourceAndFileSinkInTheDestination)
{
    auto job = newJob(newRequest(L"setup.bin"));
    ASSERT_TRUE(job->buildPipeline());
    EXPECT_TRUE(job->isPrepared());
    EXPECT_TRUE(qvtest::fileExists(dest));
    ASSERT_EQ(stages.made.size(), 2u);
    EXPECT_EQ(stages.made[0]->what, L"http://localhost:1/files/setup.bin");
    EXPECT_EQ(stages.made[1]->what, dest + L"\\setup.bin");
    EXPECT_EQ(stages.made[0]->threadProc(), &fakeStageThread);
    EXPECT_EQ(stages.sinkOffsets, std::vector<int64_t>{0});
}

TEST_F(JobTest, PackagesOfBothSuffixesGetThreeStagesWithTheirNamesAndLinks)
{
    for (const wchar_t* file : {L"pkg_001_002.tar.lzma2", L"pkg_001_002.sfx.exe"}) {
        FakeStages local;
        env = fakeEnvironment(&local);
        std::unique_ptr<DownloadImp> job(makeDownload(newRequest(file), nullptr, env));
        ASSERT_TRUE(job->buildPipeline()) << file;
        ASSERT_EQ(local.made.size(), 3u) << file;
        EXPECT_EQ(local.made[1]->what, L"decoder");
        EXPECT_EQ(local.made[2]->what, dest);
        ASSERT_EQ(local.targets.size(), 3u);
        const wchar_t* names[] = {L"Http", L"Lzma", L"xTar"};
        const uint32_t links[] = {1, 2, 1};
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_STREQ(local.targets[i]->linkSpec.stageName, names[i]);
            EXPECT_EQ(local.targets[i]->linkSpec.linkCount, links[i]);
            EXPECT_EQ(local.targets[i]->linkSpec.bufferSize[0], 0x400000u);
            EXPECT_EQ(local.targets[i]->linkSpec.reserved, -1);
        }
        EXPECT_EQ(local.targets[1]->linkSpec.bufferSize[1], 0x400000u);
    }
}

TEST_F(JobTest, BuildFailsWhenTheDestinationCannotBeMadeAndPublishesNothing)
{
    FakeRequest* r = newRequest();
    const std::wstring impossible = scratch / L"missing\\deeper\\QV_x.tmp";
    r->setDestDir(impossible.c_str());
    auto job = newJob(r);
    events.clear();
    EXPECT_FALSE(job->buildPipeline());
    EXPECT_EQ(job->getStatus(), status::SetupFailed);
    EXPECT_EQ(job->getState(), state::Aborted);
    EXPECT_TRUE(events.values(job.get(), event::StateChange).empty());
}

TEST_F(JobTest, BuildSucceedsOnAnExistingDestination)
{
    CreateDirectoryW(dest.c_str(), nullptr);
    auto job = newJob(newRequest());
    EXPECT_TRUE(job->buildPipeline());
}

TEST_F(JobTest, PauseWithoutControlThreadTakesEffectAtOnceAndOnlyOnce)
{
    auto job = newJob(newRequest());
    EXPECT_TRUE(job->pause());
    EXPECT_EQ(job->getState(), state::Paused);
    EXPECT_EQ(events.values(job.get(), event::StateChange), std::vector<uint64_t>{state::Paused});
    EXPECT_FALSE(job->pause());
    EXPECT_EQ(events.values(job.get(), event::StateChange).size(), 1u);
}

TEST_F(JobTest, SettingTheSameStateTwicePublishesOnce)
{
    FakeRequest* r = newRequest();
    r->setState(state::Init);
    auto job = newJob(r);
    job->setStatus(status::NetworkError);
    job->setPending();
    job->setPending();
    EXPECT_EQ(job->getStatus(), status::None);
    EXPECT_EQ(events.values(job.get(), event::StateChange), std::vector<uint64_t>{state::Pending});
}

TEST_F(JobTest, ValidationResultsBecomeStatusesAndEvents)
{
    auto job = newJob(newRequest());
    EXPECT_TRUE(job->applyValidationResult(validation::OpenFailure));
    EXPECT_EQ(job->getStatus(), status::OpenFailure);
    EXPECT_TRUE(events.has(job.get(), event::StatusMessage, msg::OpenFailure));
    EXPECT_TRUE(job->applyValidationResult(validation::NetworkDisconnected));
    EXPECT_EQ(job->getStatus(), status::ServerNotResponding);
    EXPECT_TRUE(events.has(job.get(), event::StatusMessage, msg::NetworkDisconnected));
    EXPECT_TRUE(job->applyValidationResult(validation::Forbidden));
    EXPECT_EQ(job->getStatus(), status::GeneralError);
    EXPECT_FALSE(job->applyValidationResult(validation::ProxyAuthRequired));
    EXPECT_EQ(job->getStatus(), status::ProxyAuthRequired);
    EXPECT_TRUE(events.has(job.get(), event::Error, msg::ProxyNeedAuthentication));
}

TEST_F(JobTest, StagesReadyReportsTheFirstUnreadyOrFailedStage)
{
    auto job = newJob(newRequest(L"p.tar.lzma2"));
    EXPECT_EQ(job->stagesReady(), 1); // no stages
    ASSERT_TRUE(job->buildPipeline());
    EXPECT_EQ(job->stagesReady(), 0);
    for (FakeTarget* t : stages.targets)
        t->ready = 1;
    EXPECT_EQ(job->stagesReady(), 1);
    stages.targets[1]->ready = 0;
    stages.targets[2]->ready = 2;
    EXPECT_EQ(job->stagesReady(), 0); // the first stage that is not ready decides
    stages.targets[1]->ready = 2;
    stages.targets[2]->ready = 0;
    EXPECT_EQ(job->stagesReady(), 2);
}

TEST_F(JobTest, ACompletedRunMovesTheFilesUpAndEndsCompletedWithTheDate)
{
    stages.source.steps = 3;
    stages.sink.steps = 3;
    auto job = newJob(newRequest());
    store.add(job->getRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\payload.txt", "data"));
    CreateDirectoryW((dest + L"\\sub").c_str(), nullptr);
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\sub\\inner.txt", "inner"));

    ASSERT_NE(job->start(), nullptr);
    EXPECT_TRUE(qvtest::fileExists(checkpoints));
    ASSERT_TRUE(waitState(job.get(), state::Completed));
    ASSERT_TRUE(job->waitForControlThread(10000));

    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(scratch / L"payload.txt", bytes));
    EXPECT_EQ(bytes, "data");
    EXPECT_TRUE(qvtest::readFile(scratch / L"sub\\inner.txt", bytes));
    EXPECT_FALSE(qvtest::fileExists(dest));
    EXPECT_FALSE(qvtest::fileExists(checkpoints));
    EXPECT_EQ(stages.connects, 1);
    EXPECT_EQ(job->getThreadHandle(), nullptr);
    EXPECT_EQ(job->getThreadId(), 0u);
    EXPECT_FALSE(job->isPrepared());
    const std::wstring date = job->getRequest()->getDate();
    EXPECT_TRUE(std::regex_match(date, std::wregex(L"^[A-Za-z]{3} [0-9]{2} [0-9]{4}$"))) << qvtest::narrow(date);
    EXPECT_EQ(store.record(job->getRequest()->getId()).date, date);
    EXPECT_EQ(events.values(job.get(), event::StateChange),
              (std::vector<uint64_t>{state::Play, state::Completing, state::Completed}));
    EXPECT_TRUE(job->waitIdle());
}

TEST_F(JobTest, PauseHoldsTheWorkersAndResumeReleasesThem)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return stages.made.back()->rounds > 3; }));
    ASSERT_TRUE(job->pause());
    ASSERT_TRUE(waitState(job.get(), state::Paused));
    Sleep(50);
    const int held = stages.made.back()->rounds;
    Sleep(100);
    EXPECT_LE(stages.made.back()->rounds, held + 1);
    EXPECT_TRUE(job->isRunning());

    ASSERT_TRUE(job->resume());
    ASSERT_TRUE(waitState(job.get(), state::Play));
    EXPECT_TRUE(waitUntil([&] { return stages.made.back()->rounds > held + 5; }));
    ASSERT_TRUE(job->abort(false));
    ASSERT_TRUE(job->waitForControlThread(10000));
}

TEST_F(JobTest, WaitIdleBlocksWhilePausedAndReportsWhetherTheDownloadHadEnded)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    job->pause();
    ASSERT_TRUE(waitState(job.get(), state::Paused));
    std::atomic<int> result{-1};
    HANDLE waiter = CreateThread(
        nullptr, 0,
        [](void* p) -> DWORD {
            auto* self = static_cast<std::pair<DownloadImp*, std::atomic<int>*>*>(p);
            *self->second = self->first->waitIdle() ? 1 : 0;
            return 0;
        },
        new std::pair<DownloadImp*, std::atomic<int>*>(job.get(), &result), 0, nullptr);
    Sleep(100);
    EXPECT_EQ(result, -1);
    job->resume();
    EXPECT_EQ(WaitForSingleObject(waiter, 10000), WAIT_OBJECT_0);
    CloseHandle(waiter);
    EXPECT_EQ(result, 0);
    job->abort(false);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_TRUE(job->waitIdle());
}

TEST_F(JobTest, StopWithoutDiscardKeepsFilesCheckpointsAndProgress)
{
    FakeRequest* r = newRequest();
    r->setTotalDownloadedSize(1000);
    r->setCheckpointId(4);
    CreateDirectoryW(checkpoints.c_str(), nullptr);
    for (const wchar_t* name : {L"Http", L"File"}) {
        const FakeStageRecord record{sizeof(FakeStageRecord), 0, 77};
        ASSERT_TRUE(qvtest::writeFile(checkpoints + L"\\00000004_" + name + L".chk",
                                      std::string(reinterpret_cast<const char*>(&record), sizeof(record))));
    }
    auto job = newJob(r);
    store.add(r);
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\part", "x"));
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    ASSERT_TRUE(waitUntil([&] { return stages.connects == 1; }));
    // Both stages continued from the checkpoint; the source replaced at start is the last one made.
    EXPECT_TRUE(stages.made.back()->restored);
    EXPECT_EQ(stages.made.back()->value, 77u);
    EXPECT_TRUE(stages.made[1]->restored);
    ASSERT_TRUE(job->abort(false));
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getState(), state::Exiting);
    EXPECT_TRUE(qvtest::fileExists(dest + L"\\part"));
    EXPECT_TRUE(qvtest::fileExists(checkpoints));
    EXPECT_EQ(r->getTotalDownloadedSize(), 1000u);
    // The store never records "exiting": the request stays resumable as it was stored.
    EXPECT_EQ(store.record(r->getId()).state, state::Play);
}

TEST_F(JobTest, AbortWithDiscardThrowsTheWorkAndProgressAway)
{
    FakeRequest* r = newRequest();
    r->setTotalDownloadedSize(1000);
    r->setBlockDownloadedSize(10);
    r->setExtractedSize(500);
    auto job = newJob(r);
    store.add(r);
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\part", "x"));
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    ASSERT_TRUE(job->abort(true));
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getState(), state::Aborted);
    EXPECT_FALSE(qvtest::fileExists(dest));
    EXPECT_FALSE(qvtest::fileExists(checkpoints));
    EXPECT_EQ(r->getTotalDownloadedSize(), 0u);
    EXPECT_EQ(r->getBlockDownloadedSize(), 0u);
    EXPECT_EQ(r->getExtractedSize(), 0u);
    EXPECT_EQ(r->getCheckpointId(), 0u);
    const StoredRequest stored = store.record(r->getId());
    EXPECT_EQ(stored.state, state::Aborted);
    EXPECT_EQ(stored.totalDownloaded, 0u);
    EXPECT_EQ(events.values(job.get(), event::StateChange),
              (std::vector<uint64_t>{state::Play, state::Aborting, state::Aborted}));
}

TEST_F(JobTest, AbortWithoutControlThreadCleansUpAtOnce)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    const int before = FakeTarget::destroyed;
    EXPECT_TRUE(job->abort(true));
    EXPECT_EQ(job->getState(), state::Aborted);
    EXPECT_EQ(FakeTarget::destroyed, before + 2);
    EXPECT_FALSE(qvtest::fileExists(dest));
}

TEST_F(JobTest, AbortNeverDeletesADestinationThatIsNotAWorkingFolder)
{
    FakeRequest* r = newRequest();
    const std::wstring own = scratch / L"mine";
    r->setDestDir(own.c_str());
    auto job = newJob(r);
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_TRUE(qvtest::writeFile(own + L"\\keep.txt", "k"));
    job->abort(true);
    EXPECT_EQ(job->getState(), state::Aborted);
    EXPECT_TRUE(qvtest::fileExists(own + L"\\keep.txt"));
}

TEST_F(JobTest, AWorkerErrorCodeBecomesTheStatus)
{
    stages.source.steps = 2;
    stages.sink.steps = 2;
    stages.sink.exitCode = 0x28000002;
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getStatus(), 0x28000002u);
    EXPECT_EQ(job->getState(), state::Aborted);
}

TEST_F(JobTest, AWorkerEndingAsAbortingMakesTheDownloadAborted)
{
    stages.source.steps = 2;
    stages.source.exitCode = state::Aborting;
    stages.sink.steps = 2;
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getState(), state::Aborted);
    EXPECT_FALSE(qvtest::fileExists(dest));
}

TEST_F(JobTest, AStageThatCannotOpenEndsTheThreadAndReportsPending)
{
    stages.sink.createBuffersOk = false;
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    HANDLE thread = job->start();
    ASSERT_NE(thread, nullptr);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_TRUE(events.has(job.get(), event::StateChange, state::Pending));
    EXPECT_EQ(job->getState(), state::Play);
    EXPECT_FALSE(job->isRunning());
}

TEST_F(JobTest, AFailedRestoreCancelsTheStartGate)
{
    FakeRequest* r = newRequest();
    r->setCheckpointId(3);
    stages.sink.restoreOk = false;
    auto job = newJob(r);
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(stages.connects, 0);
    EXPECT_EQ(job->getState(), state::Aborted);
}

TEST_F(JobTest, ReinitAndResumeFollowTheStateTable)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    ASSERT_TRUE(job->reinit());
    ASSERT_TRUE(waitState(job.get(), state::Init));
    EXPECT_FALSE(job->reinit()); // only a playing download re-initialises
    ASSERT_TRUE(job->resume());
    ASSERT_TRUE(waitState(job.get(), state::Play));
    // A command that does not fit the state is ignored.
    PostThreadMessageW(job->getThreadId(), command::Resume, 0, 0);
    Sleep(50);
    EXPECT_EQ(job->getState(), state::Play);
    job->abort(true);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getState(), state::Aborted);
}

TEST_F(JobTest, AQuitMessageStopsKeepingProgress)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    PostThreadMessageW(job->getThreadId(), WM_QUIT, 0, 0);
    ASSERT_TRUE(job->waitForControlThread(10000));
    EXPECT_EQ(job->getState(), state::Exiting);
    EXPECT_TRUE(qvtest::fileExists(checkpoints));
}

TEST_F(JobTest, DestroyingARunningJobStopsItFirst)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitState(job.get(), state::Play));
    job.reset();
    EXPECT_TRUE(qvtest::fileExists(dest));
}

TEST_F(JobTest, StartingTwiceWhileRunningIsRefused)
{
    auto job = newJob(newRequest());
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    EXPECT_EQ(job->start(), nullptr);
    job->abort(false);
    ASSERT_TRUE(job->waitForControlThread(10000));
}

} // namespace
