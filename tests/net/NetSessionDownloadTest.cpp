// Whole downloads that ask for content delivery, through the manager and the library's real stages, with
// the QvDownload.dll double serving on 127.0.0.1:9421: served locally, falling back to plain HTTP when
// the endpoint fails, and releasing every block of a package at the end.
#include "NetSessionTestSupport.h"

#include "E2eSupport.h"
#include "QvDLM.h"
#include "support/TestServers.h"

using namespace nstest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

constexpr DWORD kRunMs = 60000;

class NetSessionDownloadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded());
        module.reset();
        liveBefore = module.liveSessions();
        static int testNumber = 0;
        DownloadRequestLog::getInstance()->open(
            (scratch / (L"store" + std::to_wstring(++testNumber) + L"\\download.info")).c_str());
        dest = scratch / L"dest";
        manager = QvDLM::createDownloadMgr();
        ASSERT_NE(manager, nullptr);
    }
    void TearDown() override
    {
        QvDLM::destroy(manager);
        module.stopServers();
        for (const std::string& line : module.journal()) {
            EXPECT_EQ(line.find("unstopped"), std::string::npos) << line;
            EXPECT_EQ(line.find(" slot "), std::string::npos) << line;
        }
        EXPECT_EQ(module.liveSessions(), liveBefore);
    }

    Download* addDelivered(const std::wstring& url)
    {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(url.c_str(), nullptr, nullptr);
        r->setDestDir(dest.c_str());
        r->setUseAkamai(true);
        Download* d = manager->addDownload(r);
        EXPECT_NE(d, nullptr);
        return d;
    }
    bool completes(Download* d)
    {
        return manager->startDownload(d) &&
               e2e::waitFor([&] { return d->getState() == qvdlm::state::Completed; }, kRunMs) &&
               e2e::waitFor([&] { return !manager->anyRunning(); }, kRunMs);
    }
    bool hasMessage(uint32_t kind, uint32_t message)
    {
        for (const RecordedEvent& e : events.events())
            if (e.kind == kind && e.text.empty() && e.value == message)
                return true;
        return false;
    }
    // A file of its own in the folder nginx serves.
    std::wstring servedFile(const wchar_t* name, size_t size, uint32_t seed)
    {
        content = qvtest::patternBytes(size, seed);
        EXPECT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\" + name, content));
        return qvtest::nginxUrl(name);
    }

    NetSessionDouble module;
    int liveBefore = 0;
    qvtest::ScratchDir scratch{L"netsession-download"};
    std::wstring dest;
    DownloadMgr* manager = nullptr;
    EventRecorder events;
    std::string content;
};

TEST_F(NetSessionDownloadTest, PlainFileArrivesThroughTheServingEndpoint)
{
    const std::wstring origin = servedFile(L"netsession-e2e.bin", 5 * 1048576 + 17, 91);
    ASSERT_TRUE(module.startEndpoint(qvtest::wwwDir()));
    Download* d = addDelivered(origin);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(completes(d)) << std::hex << d->getState() << " " << d->getStatus();

    std::string got;
    ASSERT_TRUE(qvtest::readFile(dest + L"\\netsession-e2e.bin", got));
    EXPECT_TRUE(got == content) << got.size() << " bytes";
    const std::string originText = qvtest::narrow(origin);
    EXPECT_THAT(module.journal("serve "), Contains(::testing::StartsWith("serve " + originText + " bytes=0-")));
    EXPECT_THAT(module.journal("#1 create"), ElementsAre("#1 create QVDLM|" + originText + "|(null)"));
    // A one-file package is released with null when it completes, then the session ends.
    const std::vector<std::string> calls = module.journal("#1 ");
    ASSERT_GE(calls.size(), 3u);
    EXPECT_THAT(std::vector<std::string>(calls.end() - 3, calls.end()),
                ElementsAre("#1 release (null)", "#1 stop 0", "#1 destroy"));
    EXPECT_TRUE(d->getRequest()->getUseAkamai());
    EXPECT_FALSE(hasMessage(qvdlm::event::StatusMessage, qvdlm::msg::AkamaiFallback));
}

TEST_F(NetSessionDownloadTest, EndpointThatStopsServingFallsBackToPlainHttp)
{
    const std::wstring origin = servedFile(L"netsession-fallback.bin", 2 * 1048576 + 5, 92);
    ASSERT_TRUE(module.startEndpoint(qvtest::wwwDir()));
    module.setEndpointCuttingShort();
    Download* d = addDelivered(origin);
    ASSERT_NE(d, nullptr);
    // No retries on the local interface: the first failed read falls back.
    d->getRequest()->setRetryCount(0);
    ASSERT_TRUE(completes(d)) << std::hex << d->getState() << " " << d->getStatus();

    std::string got;
    ASSERT_TRUE(qvtest::readFile(dest + L"\\netsession-fallback.bin", got));
    EXPECT_TRUE(got == content) << got.size() << " bytes";
    EXPECT_TRUE(hasMessage(qvdlm::event::StatusMessage, qvdlm::msg::AkamaiFallback));
    EXPECT_THAT(events.events(),
                Contains(RecordedEvent{d, qvdlm::event::Information, 0,
                                       L"readerStreamThread fallbacks to http download instead of akamai"}));
    EXPECT_FALSE(d->getRequest()->getUseAkamai());
    EXPECT_FALSE(module.journal("serve ").empty());
    // The plain source replaced the session, which went back stopped; nothing is left to release.
    EXPECT_TRUE(module.journal("#1 release").empty());
    EXPECT_THAT(module.journal("#1 "), Contains("#1 destroy"));
}

TEST_F(NetSessionDownloadTest, MultiBlockPackageIsServedAndEveryBlockReleasedByItsOriginUrl)
{
    ASSERT_TRUE(module.startEndpoint(e2e::servedFolder()));
    Download* d = addDelivered(e2e::serverUrl(L"multi_001_003.tar.lzma2"));
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(d->getRequest()->getBlockCount(), 3);
    ASSERT_TRUE(completes(d)) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_TRUE(e2e::sameTree(e2e::servedFolder() + L"\\pkgsrc", dest));

    std::vector<std::string> origins;
    for (int block = 1; block <= 3; ++block)
        origins.push_back(qvtest::narrow(e2e::serverUrl(L"multi_00" + std::to_wstring(block) + L"_003.tar.lzma2")));
    // Each block had its session and was served locally.
    for (const std::string& origin : origins)
        EXPECT_THAT(module.journal("serve "), Contains(::testing::StartsWith("serve " + origin + " ")));
    std::vector<std::string> releases;
    for (const std::string& line : module.journal())
        if (line.find(" release ") != std::string::npos)
            releases.push_back(line.substr(line.find(" release ") + 9));
    EXPECT_THAT(releases, ElementsAreArray(origins));
}

} // namespace
