// Without the NetSession client's module beside the program the client cannot be started, and a
// download that asks for delivery completes over plain HTTP from nginx without storing the switch.
#include <gtest/gtest.h>

#include <windows.h>

#include "QvDLM.h"
#include "StartAkamai.h"
#include "support/EventRecorder.h"
#include "support/TestServers.h"

namespace {

TEST(NetSessionWithoutModule, DeliveryGoesOverPlainHttp)
{
    ASSERT_EQ(LoadLibraryW(L"QvDownload.dll"), nullptr);
    EXPECT_FALSE(StartAkamai());

    qvtest::ScratchDir scratch{L"netsession-nomodule"};
    const std::string content = qvtest::patternBytes(3 * 1048576 + 1, 93);
    ASSERT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\netsession-nomodule.bin", content));
    const std::wstring store = scratch / L"download.info";
    DownloadRequestLog::getInstance()->open(store.c_str());
    EventRecorder events;
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    DownloadRequest* r = QvDLM::createDownloadRequest();
    r->setUrl(qvtest::nginxUrl(L"netsession-nomodule.bin").c_str(), nullptr, nullptr);
    r->setDestDir((scratch / L"dest").c_str());
    r->setUseAkamai(true);
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(manager->startDownload(d));
    for (int i = 0; i < 1200 && (d->getState() != qvdlm::state::Completed || manager->anyRunning()); ++i)
        Sleep(50);
    EXPECT_EQ(d->getState(), qvdlm::state::Completed) << std::hex << d->getStatus();
    std::string got;
    EXPECT_TRUE(qvtest::readFile(scratch / L"dest\\netsession-nomodule.bin", got) && got == content) << got.size();
    EXPECT_FALSE(d->getRequest()->getUseAkamai());
    wchar_t stored[8] = {};
    GetPrivateProfileStringW(d->getRequest()->getId(), L"USE_AKAMAI", L"?", stored, 8, store.c_str());
    EXPECT_STREQ(stored, L"1");
    EXPECT_FALSE(events.has(d, qvdlm::event::StatusMessage, 1021));
    EXPECT_EQ(GetModuleHandleW(L"QvDownload.dll"), nullptr);
    QvDLM::destroy(manager);
}

} // namespace
