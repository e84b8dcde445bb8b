// Whole downloads through the manager and the real stages, from nginx and the fault server: plain files and
// packages (also under resets and 500 answers), pause, stop and restore by a new manager, and discard.
#include <gtest/gtest.h>

#include "E2eSupport.h"
#include "support/EventRecorder.h"

using namespace qvdlm;

namespace {

constexpr DWORD kRunMs = 40000;
constexpr uint64_t kLinkBuffer = 0x400000;

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(manager = (newStore(), QvDLM::createDownloadMgr()), nullptr); }
    void TearDown() override { QvDLM::destroy(manager); }
    // A store of its own for every test and row: requests are keyed by URL, and they fetch the same files.
    void newStore() { DownloadRequestLog::getInstance()->open((scratch / (L"store" + std::to_wstring(++stores) + L"\\download.info")).c_str()); }
    static inline int stores = 0;

    Download* add(const std::wstring& url, uint64_t saveInterval = 0x2BC00000, const std::wstring& to = L"")
    {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(url.c_str(), nullptr, nullptr);
        r->setDestDir((to.empty() ? dest : to).c_str());
        r->setSaveInterval(saveInterval);
        return manager->addDownload(r);
    }
    static bool reaches(Download* d, unsigned state) { return e2e::waitFor([&] { return d->getState() == state; }, kRunMs); }
    static ::testing::AssertionResult completes(Download* d)
    {
        return reaches(d, state::Completed) ? ::testing::AssertionSuccess()
                                            : ::testing::AssertionFailure() << std::hex << "state " << d->getState() << " status " << d->getStatus();
    }
    static bool holds(Download* d, uint64_t bytes) { return e2e::waitFor([&] { return d->getDownloadedSize() >= bytes; }, kRunMs); }
    bool idle() { return e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs); }

    qvtest::ScratchDir scratch{L"control-e2e"};
    const std::wstring dest = scratch / L"dest", served = e2e::servedFolder();
    DownloadMgr* manager = nullptr;
    EventRecorder events;
};

TEST_F(EndToEnd, FilesAndPackagesArriveWholeThroughResetsAndServerErrors)
{
    ASSERT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\control-e2e.bin", qvtest::patternBytes(3 * 1024 * 1024 + 11, 77)));
    const struct { std::wstring url, file; bool reconnects; } rows[] = { // packages (no file) go where folders of theirs are
        {e2e::serverUrl(L"plain.bin"), served + L"\\plain.bin", false},
        {qvtest::nginxUrl(L"control-e2e.bin"), qvtest::wwwDir() + L"\\control-e2e.bin", false},
        {e2e::serverUrl(L"pkg.tar.lzma2"), L"", false},
        {e2e::serverUrl(L"multi_001_003.tar.lzma2"), L"", false},
        {e2e::serverUrl(L"multi_001_003.tar.lzma2?rst=3000000&times=2"), L"", true}, // the URL check and the first GET are reset
        {e2e::serverUrl(L"multi_001_003.tar.lzma2?err=500&on=_002_&times=2"), L"", false}, // the second block's first two GETs: 500
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.url));
        newStore();
        const std::wstring to = scratch / (L"to" + std::to_wstring(&row - rows)), mine = to + L"\\data\\mine.txt";
        ASSERT_TRUE(!row.file.empty() || (CreateDirectoryW(to.c_str(), nullptr) && CreateDirectoryW((to + L"\\data").c_str(), nullptr) &&
                                          qvtest::writeFile(mine, "mine")));
        // A key of its own makes the fault counts this run's.
        Download* d = add(row.url.find(L'?') == std::wstring::npos ? row.url : row.url + L"&key=" + std::to_wstring(GetTickCount64()), 0x2BC00000, to);
        ASSERT_NE(d, nullptr);
        const std::wstring working = d->getRequest()->getDestDir();
        EXPECT_EQ(d->getRequest()->getBlockCount(), row.url.find(L"multi") != std::wstring::npos ? 3 : 1);
        ASSERT_TRUE(manager->startDownload(d) && completes(d) && idle());
        EXPECT_FALSE(qvtest::fileExists(working) || e2e::hasEntry(to, L"QV_") || qvtest::fileExists(d->getRequest()->getCheckpointDir()));
        EXPECT_EQ(d->getStatus(), 0u);
        // A reset is met by a reconnect, on which the manager re-initialises the download.
        EXPECT_TRUE(!row.reconnects || events.has(d, event::StateChange, state::Init));
        if (!row.file.empty()) {
            EXPECT_TRUE(e2e::sameFile(row.file, to + L"\\" + row.file.substr(row.file.rfind(L'\\') + 1)) && *d->getRequest()->getDate());
            continue;
        }
        EXPECT_TRUE(e2e::sameTree(served + L"\\pkgsrc", to) && qvtest::fileExists(mine));
        EXPECT_EQ(std::wstring(d->getRequest()->getExePath()) + L" " + d->getRequest()->getExeParam(), L"bin\\game.exe -play");
        EXPECT_TRUE(d->getRequest()->getAutoOpen());
    }
}

TEST_F(EndToEnd, PauseStopRestoreInANewManagerAndDiscard)
{
    Download* d = add(e2e::serverUrl(L"mid.bin?rate=16777216"), kLinkBuffer);
    ASSERT_TRUE(manager->startDownload(d) && holds(d, 2 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::Pause) && reaches(d, state::Paused));
    Sleep(500); // what was in flight settles into the link
    const uint64_t held = d->getDownloadedSize();
    Sleep(700);
    EXPECT_LE(d->getDownloadedSize(), held + 2 * kLinkBuffer);
    ASSERT_TRUE(manager->control(d, command::Resume) && holds(d, 4 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::StopKeep) && idle());
    EXPECT_EQ(d->getState(), state::Exiting);
    EXPECT_TRUE(qvtest::fileExists(std::wstring(d->getRequest()->getDestDir()) + L"\\mid.bin"));
    EXPECT_TRUE(e2e::hasEntry(d->getRequest()->getCheckpointDir(), L"0"));
    const uint64_t stoppedAt = d->getDownloadedSize();
    QvDLM::destroy(manager);

    manager = QvDLM::createDownloadMgr();
    manager->beginRestore();
    ASSERT_TRUE(manager->restore());
    manager->endRestore();
    ASSERT_EQ(manager->getDownloads().size(), 1u);
    Download* restored = manager->getDownloads().front();
    EXPECT_EQ(restored->getState(), state::Paused); // a stop pauses a playing download first
    ASSERT_TRUE(manager->control(restored, command::Resume) && reaches(restored, state::Play));
    EXPECT_GT(restored->getDownloadedSize(), 0u);
    EXPECT_LE(stoppedAt, restored->getDownloadedSize() + kLinkBuffer + 3 * kLinkBuffer);
    ASSERT_TRUE(completes(restored));
    EXPECT_TRUE(e2e::sameFile(served + L"\\mid.bin", dest + L"\\mid.bin"));

    // Removed, the same URL is a new download; discarded, it leaves nothing.
    ASSERT_TRUE(manager->control(restored, command::Remove));
    QvDLM::destroy(restored);
    Download* thrown = add(e2e::serverUrl(L"mid.bin?rate=16777216"));
    ASSERT_TRUE(manager->startDownload(thrown) && holds(thrown, kLinkBuffer));
    const std::wstring thrownDir = thrown->getRequest()->getDestDir(), thrownChk = thrown->getRequest()->getCheckpointDir();
    ASSERT_TRUE(manager->control(thrown, command::AbortDiscard) && reaches(thrown, state::Aborted) && idle());
    EXPECT_FALSE(qvtest::fileExists(thrownDir) || qvtest::fileExists(thrownChk) || thrown->getDownloadedSize() != 0);
}

} // namespace
