// The local serving URL that a session hands to the source is one the client's endpoint on
// 127.0.0.1:9421 answers: fetched with WinINet as the source does, with byte ranges.
#include "NetSessionTestSupport.h"

#include <wininet.h>

#include "net/NetSessionDelivery.h"
#include "support/TestSupport.h"

using namespace nstest;

namespace {

struct Fetched {
    DWORD status = 0;
    std::string body;
};

class Internet {
public:
    Internet() : session_(InternetOpenW(L"QvDLM test", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0)) {}
    ~Internet()
    {
        if (session_)
            InternetCloseHandle(session_);
    }
    Internet(const Internet&) = delete;
    Internet& operator=(const Internet&) = delete;

    Fetched get(const std::wstring& url, const std::wstring& headers = {})
    {
        Fetched result;
        HINTERNET request = InternetOpenUrlW(session_, url.c_str(), headers.empty() ? nullptr : headers.c_str(),
                                             static_cast<DWORD>(headers.size()),
                                             INTERNET_FLAG_RELOAD | INTERNET_FLAG_NO_CACHE_WRITE, 0);
        if (!request)
            return result;
        DWORD size = sizeof result.status;
        HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &result.status, &size, nullptr);
        char buffer[65536];
        for (int reads = 0; reads < 10000; ++reads) {
            DWORD got = 0;
            if (!InternetReadFile(request, buffer, sizeof buffer, &got) || got == 0)
                break;
            result.body.append(buffer, got);
        }
        InternetCloseHandle(request);
        return result;
    }

private:
    HINTERNET session_;
};

class NetSessionEndpointTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module.loaded());
        module.reset();
        payload = qvtest::patternBytes(300000, 21);
        ASSERT_TRUE(qvtest::writeFile(root / L"setup.exe", payload));
        ASSERT_TRUE(module.startEndpoint(root.path())) << "port 9421 is taken";
        request.setUseAkamai(true);
    }
    void TearDown() override
    {
        delivery.shutdown();
        module.stopServers();
    }

    NetSessionDouble module;
    qvtest::ScratchDir root{L"netsession-endpoint"};
    std::string payload;
    BlockRequest request{{L"http://127.0.0.1:19302/pkg/setup.exe?authparam=0a0b"}};
    JobDouble job{request};
    qv::NetSessionDelivery delivery;
    Internet internet;
};

TEST_F(NetSessionEndpointTest, ServingUrlDeliversTheOriginsContent)
{
    const std::wstring url = delivery.initUrl(job);
    const Fetched whole = internet.get(url);
    EXPECT_EQ(whole.status, 200u);
    EXPECT_TRUE(whole.body == payload) << "got " << whole.body.size() << " bytes";
    EXPECT_THAT(module.journal("serve "),
                ::testing::ElementsAre("serve http://127.0.0.1:19302/pkg/setup.exe?authparam=0a0b -"));
}

TEST_F(NetSessionEndpointTest, ServingUrlAnswersByteRanges)
{
    const std::wstring url = delivery.initUrl(job);
    const Fetched tail = internet.get(url, L"Range: bytes=250000-\r\n");
    EXPECT_EQ(tail.status, 206u);
    EXPECT_TRUE(tail.body == payload.substr(250000)) << "got " << tail.body.size() << " bytes";
}

TEST_F(NetSessionEndpointTest, FailingEndpointAnswersWithAServerError)
{
    module.setEndpointFailing(true);
    const Fetched failed = internet.get(delivery.initUrl(job));
    EXPECT_EQ(failed.status, 503u);
    EXPECT_TRUE(failed.body.empty());
}

TEST_F(NetSessionEndpointTest, EndpointCuttingShortEndsTheBodyEarly)
{
    module.setEndpointCuttingShort();
    const Fetched cut = internet.get(delivery.initUrl(job));
    EXPECT_EQ(cut.status, 200u);
    EXPECT_TRUE(cut.body == payload.substr(0, 65536)) << "got " << cut.body.size() << " bytes";
}

TEST_F(NetSessionEndpointTest, AnythingButServeFileIsRefused)
{
    EXPECT_EQ(internet.get(L"http://127.0.0.1:9421/api?function=other&url=http://x/setup.exe").status, 400u);
    EXPECT_EQ(internet.get(L"http://127.0.0.1:9421/setup.exe").status, 400u);
}

} // namespace
