// The download manager over stand-in stages and an in-memory store: folders, the limit of active
// downloads, its control table, reactions to events, restore, version checks and disk space.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "FakePipeline.h"
#include "support/FakeRequest.h"
#include "FakeStore.h"
#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "control/DownloadImp.h"
#include "control/DownloadMgrImp.h"
#include "log/EventPublisherImpl.h"
#include "support/TestSupport.h"

using namespace qvdlm;

namespace {

FakeStore* g_store = nullptr;
DownloadRequestLog* fakeStore() { return g_store; }
std::atomic<unsigned long> g_validation{0};
std::atomic<int> g_validations{0};
unsigned long fakeValidate(DownloadRequest*)
{
    ++g_validations;
    return g_validation;
}

class ManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_store = &store;
        g_validation = 0;
        store.open((scratch / L"store\\download.info").c_str());
        env = fakeEnvironment(&stages, &fakeStore, &fakeValidate);
        manager = std::make_unique<DownloadMgrImp>(env);
    }
    void TearDown() override
    {
        manager.reset();
        g_store = nullptr;
    }
    FakeRequest* newRequest(const std::wstring& name, const std::wstring& folder = L"dest")
    {
        auto* r = new FakeRequest(L"http://localhost:1/files/" + name);
        r->setDestDir((scratch / folder).c_str());
        r->setCheckpointDir((scratch / (L"chk-" + name)).c_str());
        return r;
    }
    static bool waitState(Download* d, uint32_t s) { return waitUntil([&] { return d->getState() == s; }); }
    // Playing with its stages at work: the start has cleared the status by then, so a stage's
    // report is not wiped out by it.
    bool waitRunning(Download* d)
    {
        return waitState(d, state::Play) && waitUntil([&] { return stages.connects.load() > 0; });
    }

    qvtest::ScratchDir scratch{L"control-manager"};
    FakeStore store;
    FakeStages stages;
    JobEnvironment env;
    EventRecorder events;
    std::unique_ptr<DownloadMgrImp> manager;
};

TEST(ManagerVersions, ComparesUpToFourNumbersWithMissingPartsAsZero)
{
    EXPECT_EQ(DownloadMgrImp::compareVersions(L"1.2", L"1.2"), 0);
    EXPECT_EQ(DownloadMgrImp::compareVersions(L"1.2.0.0", L"1.2"), 0);
    EXPECT_LT(DownloadMgrImp::compareVersions(L"1.1.9", L"1.2"), 0);
    EXPECT_LT(DownloadMgrImp::compareVersions(L"", L"1.2"), 0);
    EXPECT_GT(DownloadMgrImp::compareVersions(L"1.3", L"1.2"), 0);
    EXPECT_GT(DownloadMgrImp::compareVersions(L"2", L"1.2"), 0);
    EXPECT_GT(DownloadMgrImp::compareVersions(L"1.2.0.1", L"1.2"), 0);
    EXPECT_EQ(DownloadMgrImp::compareVersions(L"1.2.0.0.9", L"1.2"), 0); // a fifth part is not read
    EXPECT_LT(DownloadMgrImp::compareVersions(nullptr, L"1.2"), 0);
}

TEST_F(ManagerTest, CheckRequestAnswersDuplicatesNewerVersionsThenValidation)
{
    FakeRequest probe(L"http://localhost:1/files/a.bin");
    g_validation = validation::Forbidden;
    EXPECT_EQ(manager->checkRequest(&probe), validation::Forbidden);
    for (const wchar_t* newer : {L"1.3", L"2"}) {
        probe.setVersion(newer);
        EXPECT_EQ(manager->checkRequest(&probe), validation::NewerRequestVersion) << qvtest::narrow(newer);
    }
    g_validation = 0;
    for (const wchar_t* fine : {L"1.2", L"1.2.0.0", L"1.1.9", L""}) {
        probe.setVersion(fine);
        EXPECT_EQ(manager->checkRequest(&probe), 0u) << qvtest::narrow(fine);
    }
    ASSERT_NE(manager->addDownload(newRequest(L"a.bin")), nullptr);
    probe.setVersion(L"1.2");
    EXPECT_EQ(manager->checkRequest(&probe), validation::AlreadyAdded);
}

TEST_F(ManagerTest, MaxActiveTakesValuesBelow257Only)
{
    Download* downloads[4];
    for (int i = 0; i < 4; ++i)
        downloads[i] = manager->addDownload(newRequest(L"m" + std::to_wstring(i)));
    manager->setMaxActive(2);
    manager->setMaxActive(257);
    EXPECT_TRUE(manager->control(downloads[0], command::Start));
    EXPECT_TRUE(manager->control(downloads[1], command::Start));
    EXPECT_FALSE(manager->control(downloads[2], command::Start));
    EXPECT_EQ(downloads[2]->getState(), state::Pending);
    manager->setMaxActive(256);
    EXPECT_TRUE(manager->control(downloads[2], command::Start));
    EXPECT_TRUE(manager->control(downloads[3], command::Start));
    EXPECT_TRUE(waitUntil([&] { return manager->countInState(state::Play) == 4; }));
}

TEST_F(ManagerTest, AddDownloadWorksInAFreshWorkingFolderAndStoresTheRequest)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    ASSERT_NE(d, nullptr);
    const std::wstring working = d->getRequest()->getDestDir();
    EXPECT_EQ(working.rfind(scratch / L"dest\\QV_", 0), 0u) << qvtest::narrow(working);
    EXPECT_TRUE(qvtest::fileExists(working));
    EXPECT_TRUE(qvtest::fileExists(scratch / L"chk-a.bin"));
    EXPECT_TRUE(d->isPrepared());
    EXPECT_STREQ(d->getRequest()->getName(), L"a.bin"); // the store needs a name to load it again
    EXPECT_EQ(store.adds, 1);
    EXPECT_TRUE(store.exists(d->getRequest()->getId()));
    EXPECT_FALSE(manager->isEmpty());
    EXPECT_EQ(manager->getDownloads().size(), 1u);
    EXPECT_TRUE(manager->hasDownload(L"http://localhost:1/files/a"));
    EXPECT_FALSE(manager->hasDownload(L"http://localhost:1/files/a.bin?x=1")); // compared up to its "?"
    EXPECT_FALSE(manager->hasDownload(L"http://localhost:1/files/b.bin"));
}

TEST_F(ManagerTest, FoldersOf247CharactersAreRefusedWithBufferOverflow)
{
    std::wstring longName = scratch.path() + L"\\";
    longName.append(247 - longName.size(), L'd');
    ASSERT_EQ(longName.size(), 247u);
    FakeRequest* r = newRequest(L"a.bin");
    r->setDestDir(longName.c_str());
    SetLastError(0);
    EXPECT_EQ(manager->addDownload(r), nullptr);
    EXPECT_EQ(GetLastError(), 111u);
    r->setDestDir((scratch / L"dest").c_str());
    r->setCheckpointDir(longName.c_str());
    SetLastError(0);
    EXPECT_EQ(manager->addDownload(r), nullptr);
    EXPECT_EQ(GetLastError(), 111u);
    delete r;

    FakeRequest* fits = newRequest(L"b.bin");
    fits->setDestDir(longName.substr(0, 246).c_str());
    EXPECT_NE(manager->addDownload(fits), nullptr);
}

TEST_F(ManagerTest, AnEmptyCheckpointFolderGetsOneBesideTheStore)
{
    FakeRequest* r = newRequest(L"a.bin");
    r->setCheckpointDir(L"");
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    const std::wstring dir = d->getRequest()->getCheckpointDir();
    EXPECT_EQ(dir.rfind(scratch / L"store\\Checkpoints\\", 0), 0u) << qvtest::narrow(dir);
    EXPECT_TRUE(qvtest::fileExists(dir));
}

TEST_F(ManagerTest, TheFourthOfFourStaysPendingUntilOneCompletes)
{
    Download* d[4];
    for (int i = 0; i < 4; ++i) {
        d[i] = manager->addDownload(newRequest(L"q" + std::to_wstring(i)));
        ASSERT_NE(d[i], nullptr);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(manager->startDownload(d[i]));
    EXPECT_FALSE(manager->startDownload(d[3]));
    EXPECT_EQ(d[3]->getState(), state::Pending);
    EXPECT_TRUE(events.hasText(L"Active download counts = 3"));

    // A pause does not start the queued download.
    ASSERT_TRUE(waitState(d[0], state::Play));
    EXPECT_TRUE(manager->control(d[0], command::Pause));
    ASSERT_TRUE(waitState(d[0], state::Paused));
    Sleep(100);
    EXPECT_EQ(d[3]->getState(), state::Pending);
    EXPECT_TRUE(d[0]->getHoldFlag());

    // A completion does. The stand-in workers of d[1] are told to finish by themselves.
    auto* job = dynamic_cast<DownloadImp*>(d[1]);
    ASSERT_NE(job, nullptr);
    for (Stream* stage : {job->currentSource(), job->currentSink()})
        static_cast<FakeStage*>(stage)->plan.steps = 0;
    ASSERT_TRUE(waitState(d[1], state::Completed));
    ASSERT_TRUE(waitState(d[3], state::Play));
    EXPECT_EQ(manager->countInState(state::Play), 2u);
    EXPECT_TRUE(manager->anyRunning());
}

TEST_F(ManagerTest, ResumeOfAPausedDownloadRespectsTheLimit)
{
    manager->setMaxActive(1);
    Download* a = manager->addDownload(newRequest(L"a"));
    Download* b = manager->addDownload(newRequest(L"b"));
    ASSERT_TRUE(manager->startDownload(a));
    ASSERT_TRUE(waitState(a, state::Play));
    events.clear();
    manager->control(a, command::Pause);
    ASSERT_TRUE(waitState(a, state::Paused));
    // The manager lets go of it when it hears of the pause, just after the state has changed.
    ASSERT_TRUE(waitUntil([&] { return events.hasText(L"Active download counts = 0"); }));
    ASSERT_TRUE(manager->control(b, command::Start));
    ASSERT_TRUE(waitState(b, state::Play));
    EXPECT_FALSE(manager->control(a, command::Resume));
    EXPECT_EQ(a->getState(), state::Pending);
    manager->control(b, command::AbortDiscard);
    ASSERT_TRUE(waitState(b, state::Aborted));
    EXPECT_TRUE(manager->control(a, command::Start));
    EXPECT_TRUE(waitState(a, state::Play));
}

TEST_F(ManagerTest, ControlAppliesItsConditionTable)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(manager->control(d, 32768));                  // outside the commands
    EXPECT_TRUE(manager->control(reinterpret_cast<Download*>(0x10), command::Start)); // not ours
    EXPECT_TRUE(manager->control(d, command::Remove));        // pending: not removable
    EXPECT_EQ(manager->getDownloads().size(), 1u);
    EXPECT_TRUE(manager->control(d, command::Resume));        // not paused: nothing
    EXPECT_EQ(d->getState(), state::Pending);
    ASSERT_TRUE(manager->control(d, command::Start));
    ASSERT_TRUE(waitState(d, state::Play));
    EXPECT_TRUE(manager->control(d, command::Reinit));
    ASSERT_TRUE(waitState(d, state::Init));
    EXPECT_TRUE(manager->control(d, command::StopKeep));
    ASSERT_TRUE(dynamic_cast<DownloadImp*>(d)->waitForControlThread(10000));
    EXPECT_EQ(d->getState(), state::Exiting);
    EXPECT_TRUE(manager->control(d, command::AbortDiscard)); // exiting: left alone
    EXPECT_EQ(d->getState(), state::Exiting);
    EXPECT_TRUE(qvtest::fileExists(d->getRequest()->getCheckpointDir()));
}

TEST_F(ManagerTest, RemoveHandsTheDownloadBackAndDropsItFromTheStore)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    ASSERT_TRUE(d->abort(true));
    ASSERT_EQ(d->getState(), state::Aborted);
    const std::wstring id = d->getRequest()->getId();
    EXPECT_TRUE(manager->control(d, command::Remove));
    EXPECT_TRUE(manager->isEmpty());
    EXPECT_TRUE(events.has(d, event::StateChange, state::Removed));
    EXPECT_EQ(store.removed, std::vector<std::wstring>{id});
    EXPECT_FALSE(manager->removeDownload(d));
    QvDLM::destroy(d);
}

TEST_F(ManagerTest, StatusMessagesOfItsDownloadsSetStatusesAndAct)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(waitRunning(d));
    publishEvent(d, event::StatusMessage, msg::NetworkDisconnected);
    EXPECT_EQ(d->getStatus(), status::NetworkDisconnected);
    publishEvent(d, event::StatusMessage, msg::ServerNotResponse);
    EXPECT_EQ(d->getStatus(), status::ServerNotResponding);
    publishEvent(d, event::StatusMessage, msg::NetworkConnecting);
    EXPECT_EQ(d->getStatus(), status::NetworkReconnecting);
    ASSERT_TRUE(waitState(d, state::Init));
    publishEvent(d, event::StatusMessage, msg::NetworkConnected);
    EXPECT_EQ(d->getStatus(), status::None);
    ASSERT_TRUE(waitRunning(d));
    publishEvent(d, event::StatusMessage, msg::NetworkError);
    EXPECT_EQ(d->getStatus(), status::NetworkError);
    publishEvent(d, event::StatusMessage, msg::DownloadStarted); // no reaction
    EXPECT_EQ(d->getStatus(), status::NetworkError);
    publishEvent(d, event::Error, msg::UnpackageFailed);
    ASSERT_TRUE(waitState(d, state::Aborted));
    EXPECT_FALSE(qvtest::fileExists(d->getRequest()->getDestDir()));
}

TEST_F(ManagerTest, RestoreFailedAbortsAPlayingDownloadWithDiscard)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(waitRunning(d));
    publishEvent(d, event::StatusMessage, msg::RestoreFailed);
    EXPECT_EQ(d->getStatus(), status::RestoreFailed);
    EXPECT_TRUE(waitState(d, state::Aborted));
}

TEST_F(ManagerTest, AProxyValidationFailureDoesNotStart)
{
    Download* d = manager->addDownload(newRequest(L"a.bin"));
    g_validation = validation::ProxyAuthRequired;
    EXPECT_FALSE(manager->startDownload(d));
    EXPECT_EQ(d->getStatus(), status::ProxyAuthRequired);
    EXPECT_FALSE(d->isRunning());
}

TEST_F(ManagerTest, DiskShortfallPausesWithOutOfDiskSpace)
{
    FakeRequest* r = newRequest(L"huge.bin");
    r->setUncompressedSize(0x4000000000000000ull);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(manager->checkDiskSpace(r), 0xFFFFFFFEu); // saturated, not the mark of a missing volume
    EXPECT_FALSE(manager->control(d, command::Start));
    EXPECT_EQ(d->getState(), state::Paused);
    EXPECT_EQ(d->getStatus(), status::OutOfDiskSpace);
    EXPECT_TRUE(events.has(d, event::StatusMessage, msg::OutOfDiskSpace));
    EXPECT_TRUE(events.hasText(L"extraRequiredSpace: "));
    EXPECT_FALSE(d->isRunning());
}

TEST_F(ManagerTest, ADestinationWithoutDriveLetterFailsWithGeneralError)
{
    // The scratch folder without its drive: a rooted path on the current drive.
    std::wstring rooted = scratch.path().substr(2);
    FakeRequest* r = newRequest(L"a.bin");
    r->setDestDir((rooted + L"\\nodrive").c_str());
    r->setUncompressedSize(1000);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(manager->checkDiskSpace(r), 0xFFFFFFFFu);
    EXPECT_FALSE(manager->control(d, command::Start));
    EXPECT_EQ(d->getStatus(), status::GeneralError);
    EXPECT_TRUE(events.has(d, event::Error, msg::GeneralError));
    EXPECT_FALSE(d->isRunning());
}

TEST_F(ManagerTest, NoSpaceNeededWithoutSizeOrWhenAllIsExtracted)
{
    FakeRequest r(L"http://localhost:1/a");
    r.setDestDir(scratch.path().c_str());
    EXPECT_EQ(manager->checkDiskSpace(&r), 0u);
    r.setUncompressedSize(100);
    r.setExtractedSize(100);
    EXPECT_EQ(manager->checkDiskSpace(&r), 0u);
    r.setExtractedSize(10);
    EXPECT_EQ(manager->checkDiskSpace(&r), 0u); // a small remainder fits
    EXPECT_EQ(DownloadMgrImp::shortfallOn(L"\\\\server\\share\\x", 1), DownloadMgrImp::kAllOnes);
}

TEST_F(ManagerTest, PendingSpaceSumsQueuedAndPlayingDownloadsOnTheSameDrive)
{
    FakeRequest* a = newRequest(L"a");
    a->setUncompressedSize(1000);
    a->setTotalDownloadedSize(100);
    a->setBlockDownloadedSize(50);
    FakeRequest* b = newRequest(L"b");
    b->setUncompressedSize(500);
    ASSERT_NE(manager->addDownload(a), nullptr);
    Download* db = manager->addDownload(b);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(manager->getPendingSpace(scratch.path().c_str()), 850u + 500u);
    db->pause();
    EXPECT_EQ(manager->getPendingSpace(scratch.path().c_str()), 850u);
    EXPECT_EQ(manager->getPendingSpace(L"\\\\server\\share"), 0u);
}

TEST_F(ManagerTest, DefaultDestinationIsCreatedOnFirstUseAndStored)
{
    const std::wstring file = store.getPath();
    DeleteFileW(file.c_str());
    wchar_t buffer[300] = {};
    const unsigned n = manager->getDefaultDestDir(buffer, 300);
    const std::wstring expected = qvtest::env(L"SystemDrive") + L"\\Quorvel";
    EXPECT_EQ(std::wstring(buffer), expected);
    EXPECT_EQ(n, expected.size());
    std::string bytes;
    ASSERT_TRUE(qvtest::readFile(file, bytes));
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0xFF);
    EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 0xFE);
    EXPECT_EQ(manager->getDefaultDestDir(buffer, 3), 0xFFFFFFFFu);

    EXPECT_TRUE(manager->setDefaultDestDir(L"D:\\Games"));
    EXPECT_EQ(manager->getDefaultDestDir(buffer, 300), 8u);
    EXPECT_STREQ(buffer, L"D:\\Games");
}

TEST_F(ManagerTest, RestoreRecreatesStoredDownloadsByTheirStates)
{
    auto put = [&](const std::wstring& name, uint32_t s, const wchar_t* version = L"1.2") {
        StoredRequest stored;
        stored.url = L"http://localhost:1/files/" + name;
        stored.version = version;
        stored.state = s;
        stored.destDir = scratch / (L"dest\\QV_" + name);
        stored.checkpointDir = scratch / (L"chk-" + name);
        store.put(stored.url, stored);
    };
    put(L"playing", state::Play);
    put(L"newer", state::Play, L"1.3");
    put(L"completing", state::Completing);
    put(L"aborting", state::Aborting);
    put(L"paused", state::Paused);
    CreateDirectoryW((scratch / L"dest").c_str(), nullptr);

    manager->beginRestore();
    EXPECT_TRUE(manager->restore());
    std::map<std::wstring, Download*> byName;
    for (Download* d : manager->getDownloads())
        byName[std::wstring(d->getRequest()->getId()).substr(std::wstring(L"http://localhost:1/files/").size())] = d;
    ASSERT_EQ(byName.size(), 5u);
    EXPECT_EQ(byName[L"playing"]->getState(), state::Init);
    EXPECT_EQ(byName[L"newer"]->getState(), state::Aborted);
    EXPECT_EQ(byName[L"newer"]->getStatus(), status::NewerRequestVersion);
    EXPECT_EQ(byName[L"completing"]->getState(), state::Completed);
    EXPECT_EQ(byName[L"aborting"]->getState(), state::Aborted);
    EXPECT_EQ(byName[L"paused"]->getState(), state::Paused);
    // Restoring adds no new working folders: the stored ones are used.
    EXPECT_EQ(std::wstring(byName[L"playing"]->getRequest()->getDestDir()), scratch / L"dest\\QV_playing");

    // While restoring only the downloads that are to start again are started.
    for (Download* d : manager->getDownloads())
        manager->control(d, command::Start);
    manager->endRestore();
    EXPECT_TRUE(waitState(byName[L"playing"], state::Play));
    EXPECT_FALSE(byName[L"newer"]->isRunning());
    EXPECT_FALSE(byName[L"paused"]->isRunning());
}

TEST_F(ManagerTest, ARestoredPlayingRequestThatFailsValidationIsAborted)
{
    StoredRequest stored;
    stored.url = L"http://localhost:1/files/gone";
    stored.state = state::Play;
    stored.destDir = scratch / L"dest\\QV_gone";
    stored.checkpointDir = scratch / L"chk-gone";
    store.put(stored.url, stored);
    g_validation = validation::OpenFailure;
    EXPECT_TRUE(manager->restore());
    ASSERT_EQ(manager->getDownloads().size(), 1u);
    EXPECT_EQ(manager->getDownloads().front()->getState(), state::Aborted);
}

TEST_F(ManagerTest, DestroyingTheManagerDiscardsRunningDownloadsAndKeepsStoppedOnes)
{
    Download* running = manager->addDownload(newRequest(L"run"));
    Download* stopped = manager->addDownload(newRequest(L"stop"));
    Download* queued = manager->addDownload(newRequest(L"queue"));
    ASSERT_TRUE(manager->startDownload(running));
    ASSERT_TRUE(manager->startDownload(stopped));
    ASSERT_TRUE(waitState(stopped, state::Play));
    manager->control(stopped, command::StopKeep);
    ASSERT_TRUE(dynamic_cast<DownloadImp*>(stopped)->waitForControlThread(10000));
    const std::wstring runningDir = running->getRequest()->getDestDir();
    const std::wstring stoppedDir = stopped->getRequest()->getDestDir();
    const std::wstring queuedDir = queued->getRequest()->getDestDir();
    const std::wstring stoppedId = stopped->getRequest()->getId();
    manager.reset();
    EXPECT_FALSE(qvtest::fileExists(runningDir));
    EXPECT_TRUE(qvtest::fileExists(stoppedDir));
    EXPECT_TRUE(qvtest::fileExists(queuedDir));
    // Stopping a playing download pauses it first; "exiting" itself is never stored.
    EXPECT_EQ(store.record(stoppedId).state, state::Paused);
}

} // namespace
