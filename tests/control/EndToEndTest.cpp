// Whole downloads through the manager and the library's real stages, from nginx and the fault server:
// plain files and packages (also under resets and 500 answers), pause, stop and restore by a new
// manager, and discard. The limit of active downloads is in ControlTest.cpp, kills in KillTest.cpp.
#include <gtest/gtest.h>

#include "E2eSupport.h"
#include "support/EventRecorder.h"

using namespace qvdlm;
using e2e::serverUrl;

namespace {

constexpr DWORD kRunMs = 40000;
constexpr uint64_t kLinkBuffer = 0x400000;
const std::wstring kSlow = L"?rate=16777216";

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A store of its own for every test: requests are keyed by URL, and the tests fetch the same files.
        static int testNumber = 0;
        DownloadRequestLog::getInstance()->open((scratch / (L"store" + std::to_wstring(++testNumber) + L"\\download.info")).c_str());
        manager = QvDLM::createDownloadMgr();
        ASSERT_NE(manager, nullptr);
    }
    void TearDown() override { QvDLM::destroy(manager); }

    Download* add(const std::wstring& url, uint64_t saveInterval = 0x2BC00000, const std::wstring& to = L"")
    {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(url.c_str(), nullptr, nullptr);
        r->setDestDir((to.empty() ? dest : to).c_str());
        r->setSaveInterval(saveInterval);
        Download* d = manager->addDownload(r);
        EXPECT_NE(d, nullptr) << qvtest::narrow(url);
        return d;
    }
    static bool reaches(Download* d, unsigned state) { return e2e::waitFor([&] { return d->getState() == state; }, kRunMs); }
    static bool holds(Download* d, uint64_t bytes) { return e2e::waitFor([&] { return d->getDownloadedSize() >= bytes; }, kRunMs); }
    bool idle() { return e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs); }

    qvtest::ScratchDir scratch{L"control-e2e"};
    const std::wstring dest = scratch / L"dest", served = e2e::servedFolder();
    DownloadMgr* manager = nullptr;
    EventRecorder events;
};

TEST_F(EndToEnd, PlainFilesArriveWholeAndLeaveNothingBehind)
{
    ASSERT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\control-e2e.bin", qvtest::patternBytes(3 * 1024 * 1024 + 11, 77)));
    for (const auto& [url, file] : {std::pair{serverUrl(L"plain.bin"), served + L"\\plain.bin"},
                                    std::pair{qvtest::nginxUrl(L"control-e2e.bin"), qvtest::wwwDir() + L"\\control-e2e.bin"}}) {
        Download* d = add(url);
        const std::wstring working = d->getRequest()->getDestDir();
        ASSERT_TRUE(manager->startDownload(d));
        ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
        ASSERT_TRUE(idle());
        EXPECT_TRUE(e2e::sameFile(file, dest + L"\\" + file.substr(file.rfind(L'\\') + 1)));
        EXPECT_FALSE(qvtest::fileExists(working) || e2e::hasEntry(dest, L"QV_"));
        EXPECT_FALSE(qvtest::fileExists(d->getRequest()->getCheckpointDir()));
        EXPECT_NE(std::wstring(d->getRequest()->getDate()), L"");
        EXPECT_EQ(d->getStatus(), 0u);
    }
    DownloadRequest* untrusted = QvDLM::createDownloadRequest();
    untrusted->setUrl(L"http://127.0.0.1:1/plain.bin", nullptr, nullptr);
    EXPECT_EQ(manager->checkRequest(untrusted), validation::OpenFailure);
    QvDLM::destroy(untrusted);
}

TEST_F(EndToEnd, PackagesUnpackByteIdenticalThroughResetsAndServerErrors)
{
    const struct {
        const wchar_t* url;
        bool reconnects;
    } rows[] = {
        {L"pkg.tar.lzma2", false}, // into a destination that has same-named folders already: merged into
        {L"multi_001_003.tar.lzma2", false},
        {L"multi_001_003.tar.lzma2?rst=3000000&times=2", true}, // the URL check and the first GET are reset
        {L"multi_001_003.tar.lzma2?err=500&on=_002_&times=2", false}, // the second block's first two GETs: 500
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.url)); // with a store of its own: the rows share their first block URL
        DownloadRequestLog::getInstance()->open((scratch / (L"store-pkg" + std::to_wstring(&row - rows) + L"\\download.info")).c_str());
        const std::wstring to = scratch / (L"pkg" + std::to_wstring(&row - rows));
        CreateDirectoryW(to.c_str(), nullptr);
        ASSERT_TRUE(CreateDirectoryW((to + L"\\data").c_str(), nullptr) && qvtest::writeFile(to + L"\\data\\mine.txt", "mine"));
        // A key of its own makes the fault counts this run's.
        const std::wstring url = serverUrl(row.url);
        Download* d = add(url + (url.find(L'?') == std::wstring::npos ? L"?key=" : L"&key=") + std::to_wstring(GetTickCount64()),
                          0x2BC00000, to);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->getRequest()->getBlockCount(), std::wstring(row.url).find(L"multi") == 0 ? 3 : 1);
        ASSERT_TRUE(manager->startDownload(d));
        ASSERT_TRUE(reaches(d, state::Completed)) << std::hex << d->getState() << " " << d->getStatus();
        EXPECT_TRUE(e2e::sameTree(served + L"\\pkgsrc", to));
        EXPECT_TRUE(qvtest::fileExists(to + L"\\data\\mine.txt"));
        EXPECT_FALSE(e2e::hasEntry(to, L"QV_"));
        EXPECT_STREQ(d->getRequest()->getExePath(), L"bin\\game.exe");
        EXPECT_STREQ(d->getRequest()->getExeParam(), L"-play");
        EXPECT_TRUE(d->getRequest()->getAutoOpen());
        // A reset is met by a reconnect, on which the manager re-initialises the download.
        EXPECT_TRUE(!row.reconnects || events.has(d, event::StateChange, state::Init));
    }
}

TEST_F(EndToEnd, PauseStopRestoreInANewManagerAndDiscard)
{
    Download* d = add(serverUrl(L"mid.bin" + kSlow), kLinkBuffer);
    ASSERT_TRUE(manager->startDownload(d));
    ASSERT_TRUE(holds(d, 2 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::Pause));
    ASSERT_TRUE(reaches(d, state::Paused));
    Sleep(500); // what was in flight settles into the link
    const uint64_t held = d->getDownloadedSize();
    Sleep(700);
    EXPECT_LE(d->getDownloadedSize(), held + 2 * kLinkBuffer);
    ASSERT_TRUE(manager->control(d, command::Resume));
    ASSERT_TRUE(holds(d, 4 * kLinkBuffer));
    ASSERT_TRUE(manager->control(d, command::StopKeep));
    ASSERT_TRUE(idle());
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
    ASSERT_TRUE(manager->control(restored, command::Resume));
    ASSERT_TRUE(reaches(restored, state::Play));
    EXPECT_GT(restored->getDownloadedSize(), 0u);
    EXPECT_LE(stoppedAt, restored->getDownloadedSize() + kLinkBuffer + 3 * kLinkBuffer);
    ASSERT_TRUE(reaches(restored, state::Completed)) << std::hex << restored->getState() << " " << restored->getStatus();
    EXPECT_TRUE(e2e::sameFile(served + L"\\mid.bin", dest + L"\\mid.bin"));

    // Removed, the same URL is a new download; discarded, it leaves nothing.
    ASSERT_TRUE(manager->control(restored, command::Remove));
    QvDLM::destroy(restored);
    Download* thrown = add(serverUrl(L"mid.bin" + kSlow));
    ASSERT_TRUE(manager->startDownload(thrown));
    ASSERT_TRUE(holds(thrown, kLinkBuffer));
    const std::wstring thrownDir = thrown->getRequest()->getDestDir(), thrownChk = thrown->getRequest()->getCheckpointDir();
    ASSERT_TRUE(manager->control(thrown, command::AbortDiscard));
    ASSERT_TRUE(reaches(thrown, state::Aborted));
    ASSERT_TRUE(idle());
    EXPECT_FALSE(qvtest::fileExists(thrownDir) || qvtest::fileExists(thrownChk));
    EXPECT_EQ(thrown->getDownloadedSize(), 0u);
}

} // namespace
