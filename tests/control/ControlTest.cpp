// The job and its manager over stand-in stages and the library's own store, for what whole downloads do not
// reach: workers' failures, the manager's reactions to messages, its queue, restore by state, version and space checks.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>

#include "FakePipeline.h"
#include "FakeStore.h"
#include "QvDLMFactory.h"
#include "control/DownloadImp.h"
#include "control/DownloadMgrImp.h"
#include "log/EventPublisherImpl.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"
#include "support/TestSupport.h"

using namespace qvdlm;

namespace {

FakeStore* g_store = nullptr;
DownloadRequestLog* theStore() { return g_store; }
unsigned long validate(DownloadRequest* r) // URLs naming "gone" fail to open, those naming "forbidden" are refused
{
    const std::wstring url = r->getOriginalUrl();
    return url.find(L"gone") != std::wstring::npos        ? validation::OpenFailure
           : url.find(L"forbidden") != std::wstring::npos ? validation::Forbidden : 0;
}

class Control : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_store = &store;
        store.open((scratch / L"store\\download.info").c_str());
        manager = std::make_unique<DownloadMgrImp>(env);
    }
    // A request for name working in scratch\dest (or scratch\<dest> when given).
    FakeRequest* request(const std::wstring& name, const std::wstring& dest = L"dest")
    {
        auto* r = new FakeRequest(L"http://localhost:1/files/" + name);
        r->setDestDir((scratch / dest).c_str());
        r->setCheckpointDir((scratch / (L"chk-" + name)).c_str());
        r->setName(name.c_str()); // the store needs one to load a request
        return r;
    }
    static bool reaches(Download* d, uint32_t s) { return waitUntil([&] { return d->getState() == s; }); }
    bool running(Download* d) { return reaches(d, state::Play) && waitUntil([&] { return stages.connects > 0; }); }

    qvtest::ScratchDir scratch{L"control-unit"};
    FakeStore store;
    FakeStages stages;
    JobEnvironment env = fakeEnvironment(&stages, &theStore, &validate);
    EventRecorder events;
    std::unique_ptr<DownloadMgrImp> manager;
};

TEST_F(Control, AJobEndsAsItsWorkersSay)
{
    const struct { const char* what; int steps; uint32_t sourceExit, sinkExit, checkpointId; bool opens; uint32_t state, status; } rows[] = {
        {"a worker's error code becomes the status of a failed run", 2, 0, 0x28000002, 0, true, state::Aborted, 0x28000002},
        {"a worker ending as aborting aborts", 2, state::Aborting, 0, 0, true, state::Aborted, 0},
        {"a stored checkpoint that cannot be read: the run starts again from the beginning", 2, 0, 0, 3, true, state::Completed, 0},
        {"a stage that cannot open ends the thread, reported as pending", -1, 0, 0, 0, false, state::Play, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        FakeStages local;
        local.source = {row.steps, row.sourceExit}, local.sink = {row.steps, row.sinkExit, row.opens};
        FakeRequest* r = request(L"job" + std::to_wstring(&row - rows), L"QV_" + std::to_wstring(&row - rows));
        r->setCheckpointId(row.checkpointId);
        std::unique_ptr<DownloadImp> d(makeDownload(r, nullptr, fakeEnvironment(&local, &theStore)));
        ASSERT_TRUE(d->buildPipeline() && d->start() && d->waitForControlThread(10000));
        EXPECT_EQ(std::make_pair(d->getState(), d->getStatus()), std::make_pair(row.state, row.status));
        EXPECT_TRUE(qvtest::fileExists(r->getDestDir()) == (row.state == state::Play) &&
                    events.has(d.get(), event::StateChange, state::Pending) == (row.state == state::Play));
        EXPECT_TRUE(!row.checkpointId || events.hasText(L"Checkpoint 00000003 could not be restored"));
    }
    // Without a control thread a pause acts at once and only once, and an abort leaves a folder that is
    // not a working folder alone; a destination that cannot be made fails the build.
    events.clear();
    std::unique_ptr<DownloadImp> own(makeDownload(request(L"own.bin", L"mine"), nullptr, env));
    ASSERT_TRUE(own->buildPipeline() && qvtest::writeFile(scratch / L"mine\\keep.txt", "k"));
    EXPECT_TRUE(own->pause() && !own->pause() && events.values(own.get(), event::StateChange) == std::vector<uint64_t>{state::Paused});
    EXPECT_TRUE(own->abort(true) && qvtest::fileExists(scratch / L"mine\\keep.txt"));
    std::unique_ptr<DownloadImp> lost(makeDownload(request(L"x.bin", L"missing\\deeper\\QV_x.tmp"), nullptr, env));
    EXPECT_TRUE(!lost->buildPipeline() && lost->getStatus() == status::SetupFailed && lost->getState() == state::Aborted);
}

TEST_F(Control, TheManagerReactsToItsDownloadsMessages)
{
    Download* d = manager->addDownload(request(L"a.bin"));
    ASSERT_TRUE(manager->startDownload(d) && running(d));
    const std::pair<uint32_t, uint32_t> reactions[] = {
        {msg::NetworkDisconnected, status::NetworkDisconnected}, {msg::ServerNotResponse, status::ServerNotResponding},
        {msg::NetworkConnecting, status::NetworkReconnecting},   {msg::NetworkConnected, status::None},
        {msg::RestoreFailed, status::RestoreFailed}, // the download starts again by itself: nothing is discarded
        {msg::NetworkError, status::NetworkError},               {msg::DownloadStarted, status::NetworkError}};
    for (const auto& [message, expected] : reactions) {
        publishEvent(d, event::StatusMessage, message);
        EXPECT_EQ(d->getStatus(), expected) << message;
        EXPECT_TRUE((message != msg::NetworkConnecting || reaches(d, state::Init)) && (message != msg::NetworkConnected || running(d)));
    }
    EXPECT_TRUE(d->getState() == state::Play && qvtest::fileExists(d->getRequest()->getDestDir()));
    publishEvent(d, event::Error, msg::UnpackageFailed);
    EXPECT_TRUE(reaches(d, state::Aborted) && !qvtest::fileExists(d->getRequest()->getDestDir()));
}

TEST_F(Control, TheFourthWaitsForACompletionNotAPauseAndDestroyingDiscardsTheRunning)
{
    manager->setMaxActive(257); // ignored
    Download* d[4];
    for (int i = 0; i < 4; ++i) // three run at most
        EXPECT_EQ(manager->startDownload(d[i] = manager->addDownload(request(L"q" + std::to_wstring(i)))), i < 3);
    ASSERT_TRUE(reaches(d[0], state::Play) && manager->control(d[0], command::Pause) && reaches(d[0], state::Paused));
    EXPECT_FALSE(waitUntil([&] { return d[3]->getState() != state::Pending; }, 100));
    EXPECT_TRUE(manager->hasDownload(L"http://localhost:1/files/q2") && !manager->hasDownload(L"http://localhost:1/o") && !manager->isEmpty());
    d[3]->getRequest()->setUncompressedSize(5000); // space still needed by pending and playing downloads on that drive
    EXPECT_GE(manager->getPendingSpace(scratch.path().c_str()), 5000u);
    manager->pauseForDiskSpace(); // there is room: nothing pauses
    EXPECT_EQ(d[2]->getState(), state::Play);
    for (Stream* stage : {dynamic_cast<DownloadImp*>(d[1])->currentSource(), dynamic_cast<DownloadImp*>(d[1])->currentSink()})
        static_cast<FakeStage*>(stage)->plan.steps = 0; // d[1] finishes by itself
    ASSERT_TRUE(reaches(d[1], state::Completed) && reaches(d[3], state::Play));
    const std::wstring working = d[3]->getRequest()->getDestDir();
    EXPECT_FALSE((manager.reset(), qvtest::fileExists(working)));
}

TEST_F(Control, ADownloadCompletingWhileTheManagerIsDestroyedStartsNoOther)
{
    static std::atomic<bool> completing{false}, destroying{false};
    static Download* done = nullptr;
    events.onEvent = [](const EventRecorder::Entry& e) { // the completion is held until the destruction began
        if (e.source == done && e.kind == event::StateChange && e.value == state::Completing)
            completing = true, waitUntil([] { return destroying.load(); }), Sleep(100);
    };
    manager->setMaxActive(1);
    done = manager->addDownload(request(L"done.bin"));
    Download* queued = manager->addDownload(request(L"queued.bin"));
    ASSERT_TRUE(manager->startDownload(done) && !manager->startDownload(queued) && running(done));
    for (Stream* stage : {dynamic_cast<DownloadImp*>(done)->currentSource(), dynamic_cast<DownloadImp*>(done)->currentSink()})
        static_cast<FakeStage*>(stage)->plan.steps = 0;
    ASSERT_TRUE(waitUntil([] { return completing.load(); }));
    events.clear();
    destroying = true;
    manager.reset();
    EXPECT_TRUE(events.values(queued, event::StateChange).empty()); // never started, nor aborted
}

TEST_F(Control, RestoreRemakesStoredDownloadsByTheirStatesAndStartsThoseToGoOn)
{
    const std::map<std::wstring, std::pair<uint32_t, uint32_t>> rows = { // stored state -> restored state
        {L"playing", {state::Play, state::Init}}, {L"gone", {state::Play, state::Aborted}}, {L"newer", {state::Play, state::Aborted}},
        {L"completing", {state::Completing, 0}}, {L"paused", {state::Paused, state::Paused}}, {L"aborting", {state::Aborting, state::Aborted}}};
    for (const auto& [name, states] : rows) {
        std::unique_ptr<FakeRequest> r(request(name, L"dest\\QV_" + name));
        r->setVersion(name == L"newer" ? L"1.3" : L"1.2");
        r->setState(states.first);
        store.add(r.get());
        CreateDirectoryW(r->getCheckpointDir(), nullptr);
    }
    CreateDirectoryW((scratch / L"dest").c_str(), nullptr);
    manager->beginRestore();
    EXPECT_TRUE(manager->restore());
    std::map<std::wstring, Download*> byName;
    for (Download* d : manager->getDownloads())
        byName[d->getRequest()->getName()] = d;
    ASSERT_EQ(byName.size(), rows.size());
    for (const auto& [name, states] : rows) {
        EXPECT_EQ(byName[name]->getState(), states.second) << qvtest::narrow(name);
        EXPECT_EQ(std::wstring(byName[name]->getRequest()->getDestDir()), scratch / (L"dest\\QV_" + name));
        // Checkpoints go with a download that ended; one that failed its check may be started again.
        EXPECT_EQ(qvtest::fileExists(scratch / (L"chk-" + name)), states.first != state::Completing && states.first != state::Aborting);
        manager->control(byName[name], command::Start); // while restoring only those in "init" start
    }
    manager->endRestore();
    EXPECT_EQ(byName[L"newer"]->getStatus(), status::NewerRequestVersion);
    EXPECT_TRUE(reaches(byName[L"playing"], state::Play) && !byName[L"paused"]->isRunning() && !byName[L"gone"]->isRunning());
    ASSERT_TRUE(manager->control(byName[L"gone"], command::Remove)); // until it is removed
    EXPECT_FALSE(qvtest::fileExists(scratch / L"chk-gone"));
    QvDLM::destroy(byName[L"gone"]);
}

TEST_F(Control, TheManagerChecksVersionsSpaceAndItsDefaultFolder)
{
    const std::map<std::wstring, unsigned long> versions = {
        {L"1.3", validation::NewerRequestVersion}, {L"2", validation::NewerRequestVersion},
        {L"1.2.0.1", validation::NewerRequestVersion}, {L"1.2", 0}, {L"1.2.0.0.9", 0}, {L"1.1.9", 0}, {L"", 0}};
    FakeRequest probe(L"http://localhost:1/files/a.bin"), refused(L"http://localhost:1/files/forbidden.bin");
    for (const auto& [version, expected] : versions) {
        probe.setVersion(version.c_str());
        EXPECT_EQ(manager->checkRequest(&probe), expected) << qvtest::narrow(version);
    }
    EXPECT_EQ(manager->checkRequest(&refused), validation::Forbidden);
    ASSERT_NE(manager->addDownload(request(L"a.bin")), nullptr);
    EXPECT_EQ(manager->checkRequest(&probe), validation::AlreadyAdded);
    FakeRequest* huge = request(L"huge.bin");
    huge->setUncompressedSize(0x4000000000000000ull); // more than any disk holds
    Download* dh = manager->addDownload(huge);
    EXPECT_FALSE(manager->control(dh, command::Start) || dh->getState() != state::Paused);
    EXPECT_TRUE(dh->getStatus() == status::OutOfDiskSpace && events.has(dh, event::StatusMessage, msg::OutOfDiskSpace));
    SetLastError(0); // a destination of 247 characters is too long
    EXPECT_TRUE(!manager->addDownload(request(L"long.bin", std::wstring(246 - scratch.path().size(), L'd'))) && GetLastError() == 111u);
    FakeRequest* noDrive = request(L"c");
    noDrive->setDestDir((scratch.path().substr(2) + L"\\nodrive").c_str()); // rooted, without a drive letter
    noDrive->setUncompressedSize(1000);
    Download* dc = manager->addDownload(noDrive);
    EXPECT_FALSE(manager->control(dc, command::Start));
    EXPECT_TRUE(dc->getStatus() == status::GeneralError && events.has(dc, event::Error, msg::GeneralError));

    DeleteFileW(store.getPath());
    wchar_t buffer[300] = {};
    const std::wstring expected = qvtest::env(L"SystemDrive") + L"\\Quorvel";
    EXPECT_TRUE(manager->getDefaultDestDir(buffer, 300) == expected.size() && buffer == expected) << qvtest::narrow(buffer);
    std::string bytes; // the store is made again, in UTF-16
    EXPECT_TRUE(qvtest::readFile(store.getPath(), bytes) && bytes.rfind("\xFF\xFE", 0) == 0);
    EXPECT_EQ(manager->getDefaultDestDir(buffer, 3), 0xFFFFFFFFu);
}

} // namespace
