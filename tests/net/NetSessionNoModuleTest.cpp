// Without the NetSession client's module beside the program, a request that asks for content delivery
// goes over plain HTTP (not stored), and the client cannot be started.
#include "NetSessionTestSupport.h"

#include "StartAkamai.h"
#include "net/NetSessionDelivery.h"

using namespace nstest;
using ::testing::_;

namespace {

TEST(NetSessionNoModuleTest, TheModuleIsReallyMissing)
{
    HMODULE module = LoadLibraryW(L"QvDownload.dll");
    EXPECT_EQ(module, nullptr);
    if (module)
        FreeLibrary(module);
}

TEST(NetSessionNoModuleTest, DeliveryRequestGoesOverPlainHttpWithoutStoring)
{
    BlockRequest request{{L"http://127.0.0.1:19303/a.bin"}, {L"SESSION_ID=s"}};
    request.setUseAkamai(true);
    JobDouble job{request};
    EventRecorder events;
    EXPECT_CALL(job, setUseAkamai(false, false)).Times(1);
    EXPECT_CALL(job, setUseAkamai(_, true)).Times(0);
    qv::NetSessionDelivery delivery;
    const wchar_t* url = delivery.initUrl(job);
    ASSERT_NE(url, nullptr);
    EXPECT_EQ(std::wstring(url), L"http://127.0.0.1:19303/a.bin?SESSION_ID=s");
    EXPECT_FALSE(request.getUseAkamai());
    EXPECT_FALSE(delivery.active());
    EXPECT_EQ(delivery.lastError(), 0u);
    EXPECT_TRUE(events.events().empty());
}

TEST(NetSessionNoModuleTest, ClientCannotBeStarted) { EXPECT_FALSE(StartAkamai()); }

} // namespace
