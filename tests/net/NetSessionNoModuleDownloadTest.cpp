// A client using only the installed headers asks for content delivery where the NetSession client's
// module is absent: the download completes over plain HTTP from nginx.
#include <gtest/gtest.h>

#include "QvDLM.h"
#include "support/TestServers.h"

namespace {

bool waitFor(Download* d, unsigned state, DWORD ms)
{
    for (DWORD waited = 0; waited < ms; waited += 50) {
        if (d->getState() == state)
            return true;
        Sleep(50);
    }
    return d->getState() == state;
}

TEST(NetSessionNoModuleDownloadTest, DeliveryRequestCompletesOverPlainHttp)
{
    qvtest::ScratchDir scratch{L"netsession-nomodule-download"};
    const std::string content = qvtest::patternBytes(3 * 1048576 + 1, 93);
    ASSERT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\netsession-nomodule.bin", content));
    DownloadRequestLog::getInstance()->open((scratch / L"download.info").c_str());
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    ASSERT_NE(manager, nullptr);

    DownloadRequest* r = QvDLM::createDownloadRequest();
    r->setUrl(qvtest::nginxUrl(L"netsession-nomodule.bin").c_str(), nullptr, nullptr);
    r->setDestDir((scratch / L"dest").c_str());
    r->setUseAkamai(true);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(manager->startDownload(d));
    EXPECT_TRUE(waitFor(d, qvdlm::state::Completed, 60000)) << std::hex << d->getState() << " " << d->getStatus();
    std::string got;
    EXPECT_TRUE(qvtest::readFile(scratch / L"dest\\netsession-nomodule.bin", got));
    EXPECT_TRUE(got == content) << got.size() << " bytes";
    EXPECT_FALSE(d->getRequest()->getUseAkamai());
    EXPECT_EQ(GetModuleHandleW(L"QvDownload.dll"), nullptr);
    QvDLM::destroy(manager);
}

} // namespace
