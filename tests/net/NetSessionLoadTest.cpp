// The session module is loaded only for a request that asks for content delivery, and let go again
// with the download's last session. This program never loads the module itself.
#include "NetSessionTestSupport.h"

#include "net/NetSessionDelivery.h"

using namespace nstest;

namespace {

bool moduleLoaded() { return GetModuleHandleW(L"QvDownload.dll") != nullptr; }

TEST(NetSessionLoadTest, RequestWithoutDeliveryNeverLoadsTheModule)
{
    ASSERT_FALSE(moduleLoaded());
    BlockRequest request{{L"http://127.0.0.1:19303/a.bin"}};
    JobDouble job{request};
    qv::NetSessionDelivery delivery;
    EXPECT_EQ(std::wstring(delivery.initUrl(job)), L"http://127.0.0.1:19303/a.bin");
    delivery.pause();
    delivery.resume();
    delivery.abort(false);
    delivery.finish(request, qvdlm::state::Completed);
    EXPECT_FALSE(moduleLoaded());
}

TEST(NetSessionLoadTest, RequestWithDeliveryHoldsTheModuleWhileItsSessionLives)
{
    ASSERT_FALSE(moduleLoaded());
    BlockRequest request{{L"http://127.0.0.1:19303/a.bin"}};
    request.setUseAkamai(true);
    JobDouble job{request};
    qv::NetSessionDelivery delivery;
    EXPECT_EQ(std::wstring(delivery.initUrl(job)), std::wstring(kServePrefix) + L"http://127.0.0.1:19303/a.bin");
    EXPECT_TRUE(moduleLoaded());
    delivery.finish(request, qvdlm::state::Completed);
    EXPECT_FALSE(moduleLoaded());
}

} // namespace
