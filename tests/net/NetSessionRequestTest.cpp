// Content delivery with the library's own request: a three-block package with URL tokens and a
// reporting session key, served locally and released block by block with the tokened origin URLs.
#include "NetSessionTestSupport.h"

#include <memory>

#include "QvDLMFactory.h"
#include "net/NetSessionDelivery.h"
#include "support/TestSupport.h"

using namespace nstest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

struct RequestDeleter {
    void operator()(DownloadRequest* request) const { QvDLM::destroy(request); }
};

class NetSessionRequestTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded());
        module.reset();
        ASSERT_TRUE(request);
        request->setUrl(L"http://127.0.0.1:19301/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1", nullptr, nullptr);
        ASSERT_EQ(request->getBlockCount(), 3);
        request->setUseAkamai(true);
        // The origin URL of each block as the session sees it: token in, query out.
        for (int32_t block = 0; block < 3; ++block) {
            request->setBlockId(block);
            origins.push_back(qvtest::narrow(request->getUrl(false)));
            ASSERT_NE(origins.back().find("authparam="), std::string::npos);
            ASSERT_EQ(origins.back().find("SESSION_ID"), std::string::npos);
        }
    }
    void TearDown() override { delivery.shutdown(); }

    NetSessionDouble module;
    std::unique_ptr<DownloadRequest, RequestDeleter> request{QvDLM::createDownloadRequest()};
    JobDouble job{*request};
    qv::NetSessionDelivery delivery;
    std::vector<std::string> origins;
};

TEST_F(NetSessionRequestTest, CurrentBlockIsServedLocallyWithTheFirstQueryForTheSession)
{
    request->setBlockId(1);
    const std::wstring url = delivery.initUrl(job);
    EXPECT_EQ(qvtest::narrow(url), qvtest::narrow(kServePrefix) + origins[1]);
    EXPECT_THAT(module.journal("#1 create"), ElementsAre("#1 create QVDLM|" + origins[1] + "|SESSION_ID=x_001_003&y=1"));
}

TEST_F(NetSessionRequestTest, CompletionReleasesEveryBlockWithItsTokenedOriginUrl)
{
    request->setBlockId(2);
    delivery.initUrl(job);
    module.clearJournal();
    delivery.finish(*request, qvdlm::state::Completed);
    std::vector<std::string> expected;
    for (const std::string& origin : origins)
        expected.push_back("#1 release " + origin);
    EXPECT_THAT(module.journal("#1 release"), ElementsAreArray(expected));
    EXPECT_EQ(request->getBlockId(), 0);
}

TEST_F(NetSessionRequestTest, FallbackLeavesThePlainUrlWithItsQuery)
{
    request->setBlockId(0);
    delivery.initUrl(job);
    qv::NetSessionDelivery::fallBackToHttp(job);
    EXPECT_EQ(qvtest::narrow(request->getUrl(true)), origins[0] + "&SESSION_ID=x_001_003&y=1");
    delivery.finish(*request, qvdlm::state::Completed);
    EXPECT_EQ(module.journal("#1 release").size(), 3u);
    EXPECT_EQ(module.journal("#1 release").front(), "#1 release " + origins[0]);
}

} // namespace
