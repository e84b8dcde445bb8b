// A client's view: only the installed umbrella header and QvDLM.dll, requests made and stored through
// the factory and the process-wide store.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QvDLM.h"
#include "support/TestSupport.h"

namespace {

constexpr wchar_t kUrl[] = L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1";

struct Released {
    DownloadRequestSet requests;
    ~Released()
    {
        for (DownloadRequest* r : requests)
            QvDLM::destroy(r);
    }
};

} // namespace

TEST(ClientRequest, SetUrlAndGettersThroughTheInterface)
{
    DownloadRequest* r = QvDLM::createDownloadRequest();
    ASSERT_NE(r, nullptr);
    r->setUrl(kUrl, nullptr, nullptr);
    EXPECT_EQ(r->getBlockCount(), 3);
    ASSERT_EQ(r->getUrls().size(), 3u);
    EXPECT_EQ(r->getUrls()[2], L"https://cdn.example.com/p/pkg_003_003.sfx.exe?authparam=%s");
    EXPECT_EQ(r->getQueries()[1], L"SESSION_ID=x_002_003&y=1");
    ASSERT_NE(r->getToken(0), nullptr);
    EXPECT_EQ(std::wstring(r->getToken(0)).size(), 10u + 1 + 32) << "expiry, '_' and the digest";
    EXPECT_STREQ(r->getId(), L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=%s");
    EXPECT_STREQ(r->getUrlPath(), L"/p/pkg_001_003.sfx.exe");
    EXPECT_TRUE(r->isSfxPackage());
    const std::wstring first = r->getUrl(false);
    EXPECT_EQ(first, L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=" + std::wstring(r->getToken(0)) +
                         L"&SESSION_ID=x_001_003&y=1");
    EXPECT_NE(r->nextBlock(), nullptr);
    EXPECT_EQ(r->getBlockId(), 1);
    r->setAuthParamName(L"auth");
    EXPECT_STREQ(r->getAuthParamName(), L"auth=");
    QvDLM::destroy(r);
}

TEST(ClientRequest, AddReloadAndDeleteThroughTheStore)
{
    qvtest::ScratchDir dir(L"client-store");
    const std::wstring path = dir / L"download.info";
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_NE(store, nullptr);
    ASSERT_TRUE(store->open(path.c_str()));
    EXPECT_EQ(std::wstring(store->getPath()), path);

    DownloadRequest* r = QvDLM::createDownloadRequest();
    ASSERT_NE(r, nullptr);
    r->setUrl(kUrl, nullptr, nullptr);
    r->setName(L"Client package");
    r->setDestDir(L"C:\\Client");
    r->setCompressedSize(4242);
    ASSERT_TRUE(store->add(r));
    EXPECT_TRUE(store->exists(r->getId()));
    const std::wstring id = r->getId();
    const std::wstring token2 = r->getToken(2);

    {
        Released loaded;
        ASSERT_TRUE(store->loadAll(loaded.requests));
        ASSERT_EQ(loaded.requests.size(), 1u);
        DownloadRequestIterator it(loaded.requests);
        ASSERT_TRUE(it.hasNext());
        DownloadRequest* back = it.next();
        EXPECT_FALSE(it.hasNext());
        EXPECT_EQ(std::wstring(back->getId()), id);
        EXPECT_STREQ(back->getName(), L"Client package");
        EXPECT_STREQ(back->getDestDir(), L"C:\\Client");
        EXPECT_EQ(back->getCompressedSize(), 4242u);
        EXPECT_EQ(back->getBlockCount(), 3);
        EXPECT_EQ(std::wstring(back->getToken(2)), token2);
        EXPECT_EQ(back->getUrls(), r->getUrls());
        EXPECT_STREQ(back->getUrl(false), r->getUrl(false));
    }

    r->setBlockId(2);
    r->setTotalDownloadedSize(99);
    EXPECT_TRUE(store->saveProgress(r, qvdlm::state::Paused, 5));
    {
        DownloadRequest* back = QvDLM::createDownloadRequest();
        ASSERT_TRUE(store->load(id.c_str(), back));
        EXPECT_EQ(back->getBlockId(), 2);
        EXPECT_EQ(back->getTotalDownloadedSize(), 99u);
        EXPECT_EQ(back->getCheckpointId(), 5u);
        EXPECT_EQ(back->getState(), qvdlm::state::Paused);
        QvDLM::destroy(back);
    }

    EXPECT_TRUE(store->remove(id.c_str()));
    EXPECT_FALSE(store->exists(id.c_str()));
    Released none;
    ASSERT_TRUE(store->loadAll(none.requests));
    EXPECT_TRUE(none.requests.empty());
    QvDLM::destroy(r);
}
