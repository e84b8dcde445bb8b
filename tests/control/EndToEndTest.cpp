// Whole downloads through the manager from loopback servers, with the library's real stages: plain
// files and packages, pause and resume, stop and discard, the limit of active downloads, long
// destinations, disk shortfall and restore by a new manager.
#include <gtest/gtest.h>

#include <memory>

#include "E2eSupport.h"

using namespace qvdlm;
using e2e::serverUrl;

namespace {

constexpr DWORD kRunMs = 40000;
constexpr uint64_t kLinkBuffer = 0x400000;

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A store of its own for every test: requests are keyed by URL, and the tests fetch the same files.
        static int testNumber = 0;
        DownloadRequestLog::getInstance()->open(
            (scratch / (L"store" + std::to_wstring(++testNumber) + L"\\download.info")).c_str());
        dest = scratch / L"dest";
        manager = QvDLM::createDownloadMgr();
        ASSERT_NE(manager, nullptr);
    }
    void TearDown() override { QvDLM::destroy(manager); }

    DownloadRequest* request(const std::wstring& path, uint64_t saveInterval = 0x2BC00000)
    {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(serverUrl(path).c_str(), nullptr, nullptr);
        r->setName(path.c_str());
        r->setDestDir(dest.c_str());
        r->setSaveInterval(saveInterval);
        return r;
    }
    Download* add(const std::wstring& path, uint64_t saveInterval = 0x2BC00000)
    {
        Download* d = manager->addDownload(request(path, saveInterval));
        EXPECT_NE(d, nullptr) << qvtest::narrow(path);
        return d;
    }
    static bool reaches(Download* d, unsigned state, DWORD ms = kRunMs)
    {
        return e2e::waitFor([&] { return d->getState() == state; }, ms);
    }
    static bool downloadedAtLeast(Download* d, uint64_t bytes)
    {
        return e2e::waitFor([&] { return d->getDownloadedSize() >= bytes; }, kRunMs);
    }
    std::wstring served(const std::wstring& name) { return e2e::servedFolder() + L"\\" + name; }

    // Starts the three-block package through the fault server with the given fault options; the
    // blocks are copied under a name of their own, and a fresh key makes the fault counts this run's.
    Download* startThroughFaultServer(const std::wstring& prefix, const std::wstring& faults)
    {
        const std::wstring www = e2e::servedFolder() + L"\\..\\www";
        for (int i = 1; i <= 3; ++i) {
            const std::wstring name = L"multi_00" + std::to_wstring(i) + L"_003.tar.lzma2";
            if (!CopyFileW(served(name).c_str(), (www + L"\\" + prefix + name).c_str(), FALSE))
                return nullptr;
        }
        const std::wstring key = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount());
        DownloadRequest* r = request(L"x");
        r->setUrl((L"http://localhost:" + std::to_wstring(qvtest::port(1)) + L"/file/" + prefix +
                   L"multi_001_003.tar.lzma2?" + faults + L"&key=" + key)
                      .c_str(),
                  nullptr, nullptr);
        Download* d = manager->addDownload(r);
        if (!d || d->getRequest()->getBlockCount() != 3 || !manager->startDownload(d))
            return nullptr;
        return d;
    }

    qvtest::ScratchDir scratch{L"control-e2e"};
    std::wstring dest;
    DownloadMgr* manager = nullptr;
    e2e::StateLog states;
};

TEST_F(EndToEnd, APlainFileArrivesWholeInTheDestination)
{
    Download* d = add(L"plain.bin");
    ASSERT_NE(d, nullptr);
    const std::wstring working = d->getRequest()->getDestDir();
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    ASSERT_TRUE(e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs));
    EXPECT_TRUE(e2e::sameFile(served(L"plain.bin"), dest + L"\\plain.bin"));
    EXPECT_FALSE(qvtest::fileExists(working));
    EXPECT_TRUE(e2e::entriesStartingWith(dest, L"QV_").empty());
    EXPECT_FALSE(qvtest::fileExists(d->getRequest()->getCheckpointDir()));
    EXPECT_NE(std::wstring(d->getRequest()->getDate()), L"");
    EXPECT_EQ(d->getStatus(), 0u);
}

TEST_F(EndToEnd, APlainFileFromNginx)
{
    const std::wstring www = e2e::servedFolder() + L"\\..\\www";
    const std::string bytes = qvtest::patternBytes(3 * 1024 * 1024 + 11, 77);
    ASSERT_TRUE(qvtest::writeFile(www + L"\\control-e2e.bin", bytes));
    DownloadRequest* r = request(L"x");
    r->setUrl((L"http://localhost:" + std::to_wstring(qvtest::port(0)) + L"/control-e2e.bin").c_str(), nullptr,
              nullptr);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    std::string got;
    ASSERT_TRUE(qvtest::readFile(dest + L"\\control-e2e.bin", got));
    EXPECT_TRUE(got == bytes);
}

TEST_F(EndToEnd, AMultiBlockPackageUnpacksByteIdenticalAndReadsItsLaunchFile)
{
    Download* d = add(L"multi_001_003.tar.lzma2");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->getRequest()->getBlockCount(), 3);
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameTree(served(L"pkgsrc"), dest));
    EXPECT_STREQ(d->getRequest()->getExePath(), L"bin\\game.exe");
    EXPECT_STREQ(d->getRequest()->getExeParam(), L"-play");
    EXPECT_TRUE(d->getRequest()->getAutoOpen());
    EXPECT_TRUE(e2e::entriesStartingWith(dest, L"QV_").empty());
}

TEST_F(EndToEnd, AMultiBlockPackageSurvivesAConnectionResetInItsFirstBlock)
{
    // The first two requests (the URL check and the first GET) are reset 3,000,000 bytes into the file.
    Download* d = startThroughFaultServer(L"ctl", L"rst=3000000&times=2");
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameTree(served(L"pkgsrc"), dest));
    // The reset was met: the reconnect made the manager re-initialise the download on the way.
    EXPECT_GE(states.indexOf(d, state::Init), 0);
}

TEST_F(EndToEnd, AMultiBlockPackageGetsPastServerErrorsOnItsSecondBlock)
{
    // The first two requests for the second block are answered 500; later ones are served.
    Download* d = startThroughFaultServer(L"err", L"err=500&on=_002_&times=2");
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameTree(served(L"pkgsrc"), dest));
}

TEST_F(EndToEnd, ASingleBlockPackageUnpacksIntoADestinationThatHasTheFoldersAlready)
{
    // Same-named folders in the destination are merged into, not left behind in the working folder.
    CreateDirectoryW(dest.c_str(), nullptr);
    CreateDirectoryW((dest + L"\\data").c_str(), nullptr);
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\data\\mine.txt", "mine"));
    Download* d = add(L"pkg.tar.lzma2");
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameTree(served(L"pkgsrc"), dest));
    EXPECT_TRUE(qvtest::fileExists(dest + L"\\data\\mine.txt"));
    EXPECT_TRUE(e2e::entriesStartingWith(dest, L"QV_").empty());
}

TEST_F(EndToEnd, PauseHoldsTheTransferAndResumeFinishesIt)
{
    Download* d = add(L"slow/mid.bin");
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(downloadedAtLeast(d, 2 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::Pause));
    ASSERT_TRUE(reaches(d, state::Paused));
    Sleep(500); // what was in flight settles into the link
    const uint64_t held = d->getDownloadedSize();
    Sleep(700);
    EXPECT_LE(d->getDownloadedSize(), held + 2 * kLinkBuffer);
    ASSERT_TRUE(manager->control(d, command::Resume));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameFile(served(L"mid.bin"), dest + L"\\mid.bin"));
}

TEST_F(EndToEnd, AbortWithDiscardLeavesNothingAndWithoutKeepsTheWork)
{
    Download* thrown = add(L"slow/mid.bin");
    ASSERT_TRUE(manager->startDownload(thrown));
    ASSERT_TRUE(downloadedAtLeast(thrown, kLinkBuffer));
    const std::wstring thrownDir = thrown->getRequest()->getDestDir();
    const std::wstring thrownChk = thrown->getRequest()->getCheckpointDir();
    ASSERT_TRUE(manager->control(thrown, command::AbortDiscard));
    ASSERT_TRUE(reaches(thrown, state::Aborted));
    ASSERT_TRUE(e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs));
    EXPECT_FALSE(qvtest::fileExists(thrownDir));
    EXPECT_FALSE(qvtest::fileExists(thrownChk));
    EXPECT_EQ(thrown->getDownloadedSize(), 0u);
    // Removed from the manager and the store, the same file can be fetched again as a new download.
    ASSERT_TRUE(manager->control(thrown, command::Remove));
    QvDLM::destroy(thrown);

    Download* kept = add(L"slow/mid.bin", kLinkBuffer);
    ASSERT_TRUE(manager->startDownload(kept));
    ASSERT_TRUE(downloadedAtLeast(kept, 4 * kLinkBuffer));
    const std::wstring keptDir = kept->getRequest()->getDestDir();
    ASSERT_TRUE(manager->control(kept, command::StopKeep));
    ASSERT_TRUE(e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs));
    EXPECT_EQ(kept->getState(), state::Exiting);
    EXPECT_TRUE(qvtest::fileExists(keptDir + L"\\mid.bin"));
    EXPECT_FALSE(e2e::entriesStartingWith(kept->getRequest()->getCheckpointDir(), L"0").empty());
}

TEST_F(EndToEnd, StopDestroyRestoreInANewManagerAndFinish)
{
    const uint64_t interval = kLinkBuffer;
    Download* d = add(L"slow/mid.bin", interval);
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(downloadedAtLeast(d, 4 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::StopKeep));
    ASSERT_TRUE(e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs));
    const uint64_t stoppedAt = d->getDownloadedSize();
    QvDLM::destroy(manager);

    manager = QvDLM::createDownloadMgr();
    manager->beginRestore();
    ASSERT_TRUE(manager->restore());
    manager->endRestore();
    ASSERT_EQ(manager->getDownloads().size(), 1u);
    Download* restored = manager->getDownloads().front();
    EXPECT_EQ(restored->getState(), state::Paused); // a stop pauses a playing download first
    ASSERT_TRUE(manager->control(restored, command::Resume));
    ASSERT_TRUE(reaches(restored, state::Play));
    const uint64_t resumedFrom = restored->getDownloadedSize();
    EXPECT_GT(resumedFrom, 0u);
    EXPECT_LE(stoppedAt, resumedFrom + interval + 3 * kLinkBuffer);
    ASSERT_TRUE(reaches(restored, state::Completed)) << std::hex << restored->getState() << " "
                                                     << restored->getStatus();
    EXPECT_TRUE(e2e::sameFile(served(L"mid.bin"), dest + L"\\mid.bin"));
}

TEST_F(EndToEnd, ThreeRunAtOnceAndTheFourthStartsWhenOneCompletes)
{
    Download* d[4];
    for (int i = 0; i < 4; ++i) {
        DownloadRequest* r = request(L"slow/plain" + std::to_wstring(i) + L".bin");
        d[i] = manager->addDownload(r);
        ASSERT_NE(d[i], nullptr);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(manager->startDownload(d[i]));
    EXPECT_FALSE(manager->startDownload(d[3]));
    EXPECT_EQ(d[3]->getState(), state::Pending);
    for (Download* x : d)
        ASSERT_TRUE(reaches(x, state::Completed)) << std::hex << x->getState() << " " << x->getStatus();
    const int fourthPlays = states.indexOf(d[3], state::Play);
    int firstCompletion = 1 << 30;
    for (int i = 0; i < 3; ++i)
        firstCompletion = std::min(firstCompletion, states.indexOf(d[i], state::Completed));
    EXPECT_GT(fourthPlays, firstCompletion);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(e2e::sameFile(served(L"plain.bin"), dest + L"\\plain" + std::to_wstring(i) + L".bin"));
}

TEST_F(EndToEnd, ADestinationOf246CharactersWorksAnd247IsRefused)
{
    std::wstring longDest = scratch.path() + L"\\";
    longDest.append(247 - longDest.size(), L'd');
    DownloadRequest* refused = request(L"plain.bin");
    refused->setDestDir(longDest.c_str());
    SetLastError(0);
    EXPECT_EQ(manager->addDownload(refused), nullptr);
    EXPECT_EQ(GetLastError(), 111u);
    QvDLM::destroy(refused);

    longDest.resize(246);
    DownloadRequest* r = request(L"plain.bin");
    r->setDestDir(longDest.c_str());
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameFile(served(L"plain.bin"), longDest + L"\\plain.bin"));
}

TEST_F(EndToEnd, ARequestLargerThanTheFreeSpaceIsPausedAsOutOfDiskSpace)
{
    DownloadRequest* r = request(L"plain.bin");
    r->setUncompressedSize(0x4000000000000000ull);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    EXPECT_FALSE(manager->control(d, command::Start));
    EXPECT_EQ(d->getState(), state::Paused);
    EXPECT_EQ(d->getStatus(), status::OutOfDiskSpace);
    EXPECT_FALSE(manager->anyRunning());
}

TEST_F(EndToEnd, AnUntrustedHostFailsTheRequestCheck)
{
    DownloadRequest* r = request(L"plain.bin");
    r->setUrl(L"http://127.0.0.1:1/plain.bin", nullptr, nullptr);
    EXPECT_EQ(manager->checkRequest(r), validation::OpenFailure);
    QvDLM::destroy(r);
}

} // namespace
