// A process killed while it writes the request store must not take the stored request with it: the
// next process finds the request again, with the progress of a complete write.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "QvDLMCodes.h"
#include "common/Win32Raii.h"
#include "request/DownloadRequestLogImp.h"
#include "support/TestSupport.h"

namespace {

constexpr int kRounds = 25;
constexpr ULONGLONG kBudgetMs = 40000;

std::wstring writerPath()
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path = self;
    return path.substr(0, path.find_last_of(L'\\') + 1) + L"request_store_writer.exe";
}

struct LoadedSet {
    DownloadRequestSet requests;
    ~LoadedSet()
    {
        for (DownloadRequest* r : requests)
            delete r;
    }
};

// Starts the writer, lets it write for a while and kills it; false when it never got going.
bool killWriterMidWrite(const std::wstring& store, const std::wstring& ready, DWORD writeMs)
{
    DeleteFileW(ready.c_str());
    std::wstring command = L"\"" + writerPath() + L"\" \"" + store + L"\" \"" + ready + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info))
        return false;
    qv::UniqueHandle process(info.hProcess);
    qv::UniqueHandle thread(info.hThread);
    bool started = false;
    for (int i = 0; i < 1000 && !started; ++i) {
        started = qvtest::fileExists(ready);
        if (!started && WaitForSingleObject(process.get(), 10) == WAIT_OBJECT_0)
            break;
    }
    Sleep(writeMs);
    TerminateProcess(process.get(), 9);
    WaitForSingleObject(process.get(), 10000);
    return started;
}

TEST(StoreKillTest, AWriterKilledAtAnyMomentLeavesItsRequestLoadable)
{
    qvtest::ScratchDir dir(L"request-store-kill");
    const std::wstring store = dir / L"download.info";
    const std::wstring ready = dir / L"ready";
    const ULONGLONG end = GetTickCount64() + kBudgetMs;
    int rounds = 0;
    for (; rounds < kRounds && GetTickCount64() < end; ++rounds) {
        ASSERT_TRUE(killWriterMidWrite(store, ready, 5 + (rounds * 37) % 60)) << "round " << rounds;
        DownloadRequestLogImp reader;
        ASSERT_TRUE(reader.open(store.c_str()));
        LoadedSet loaded;
        ASSERT_TRUE(reader.loadAll(loaded.requests));
        ASSERT_EQ(loaded.requests.size(), 1u) << "the request was lost in round " << rounds;
        DownloadRequest* request = *loaded.requests.begin();
        const uint32_t state = request->getState();
        EXPECT_TRUE(state == qvdlm::state::Pending || state == qvdlm::state::Play) << state;
        EXPECT_EQ(request->getBlockDownloadedSize() % 4096, 0u) << "a progress value from a cut write";
    }
    EXPECT_GT(rounds, 5);
}

} // namespace
