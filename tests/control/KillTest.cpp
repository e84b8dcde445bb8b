// A client process killed in the middle of a download (TerminateProcess) leaves a store and checkpoints
// from which a new process finishes it, byte-identical, fetching again at most about a checkpoint
// interval and the link buffers.
#include <gtest/gtest.h>

#include <cstdlib>

#include "E2eSupport.h"

using namespace qvdlm;

namespace {

constexpr uint64_t kLinkBuffer = 0x400000;
constexpr uint64_t kInterval = 2 * kLinkBuffer;

struct Progress {
    uint64_t downloaded = 0;
    uint64_t restoredFrom = 0;
    bool done = false;
    std::string last;
};

// Follows a driver's output until it has downloaded at least killAt bytes (then kills it), or to its end.
Progress follow(e2e::ChildProcess& child, uint64_t killAt)
{
    Progress p;
    std::string line;
    const ULONGLONG end = GetTickCount64() + 50000;
    while (GetTickCount64() < end && child.readLine(line, 5000)) {
        p.last = line;
        if (line.rfind("R ", 0) == 0)
            p.restoredFrom = std::strtoull(line.c_str() + 2, nullptr, 10);
        if (line.rfind("P ", 0) == 0)
            p.downloaded = std::max<uint64_t>(p.downloaded, std::strtoull(line.c_str() + 2, nullptr, 10));
        if (line.rfind("DONE", 0) == 0) {
            p.done = true;
            break;
        }
        if (killAt && p.downloaded >= killAt) {
            child.kill();
            break;
        }
    }
    return p;
}

class KillTest : public ::testing::Test {
protected:
    std::wstring command(const std::wstring& args) { return L"\"" + e2e::driverPath() + L"\" " + args; }
    std::wstring store() { return scratch / L"store\\download.info"; }
    qvtest::ScratchDir scratch{L"control-kill"};
};

TEST_F(KillTest, APlainFileSurvivesTwoKillsAndFinishesIdentical)
{
    const std::wstring dest = scratch / L"dest";
    uint64_t killedAt = 0;
    {
        e2e::ChildProcess first(command(L"start \"" + store() + L"\" " + e2e::serverUrl(L"slow/big.bin") + L" \"" +
                                        dest + L"\" " + std::to_wstring(kInterval)));
        ASSERT_TRUE(first.started());
        const Progress p = follow(first, 24 * 1024 * 1024);
        ASSERT_FALSE(p.done) << p.last;
        killedAt = p.downloaded;
    }
    {
        e2e::ChildProcess second(command(L"resume \"" + store() + L"\""));
        ASSERT_TRUE(second.started());
        const Progress p = follow(second, 40 * 1024 * 1024);
        ASSERT_FALSE(p.done) << p.last;
        EXPECT_GT(p.restoredFrom, 0u);
        EXPECT_LE(killedAt, p.restoredFrom + kInterval + 3 * kLinkBuffer);
        killedAt = p.downloaded;
    }
    e2e::ChildProcess last(command(L"resume \"" + store() + L"\""));
    ASSERT_TRUE(last.started());
    const Progress p = follow(last, 0);
    ASSERT_TRUE(p.done) << p.last;
    EXPECT_EQ(p.last.rfind("DONE 0 ", 0), 0u) << p.last;
    EXPECT_EQ(last.wait(10000), 0u);
    EXPECT_LE(killedAt, p.restoredFrom + kInterval + 3 * kLinkBuffer);
    EXPECT_TRUE(e2e::sameFile(e2e::servedFolder() + L"\\big.bin", dest + L"\\big.bin"));
    EXPECT_TRUE(e2e::entriesStartingWith(dest, L"QV_").empty());
}

TEST_F(KillTest, AMultiBlockPackageSurvivesAKillAndUnpacksIdentical)
{
    const std::wstring dest = scratch / L"pkgdest";
    uint64_t killedAt = 0;
    {
        e2e::ChildProcess first(command(L"start \"" + store() + L"\" " +
                                        e2e::serverUrl(L"slow/multi_001_003.tar.lzma2") + L" \"" + dest + L"\" " +
                                        std::to_wstring(kLinkBuffer)));
        ASSERT_TRUE(first.started());
        // In the third block, after the first checkpoints have been committed.
        const Progress p = follow(first, 16 * 1024 * 1024);
        ASSERT_FALSE(p.done) << p.last;
        killedAt = p.downloaded;
    }
    e2e::ChildProcess second(command(L"resume \"" + store() + L"\""));
    ASSERT_TRUE(second.started());
    const Progress p = follow(second, 0);
    ASSERT_TRUE(p.done) << p.last;
    EXPECT_EQ(p.last.rfind("DONE 0 ", 0), 0u) << p.last;
    EXPECT_GT(p.restoredFrom, 0u);
    // Two links lie between the source and the unpacker of a package.
    EXPECT_LE(killedAt, p.restoredFrom + kLinkBuffer + 5 * kLinkBuffer);
    EXPECT_TRUE(e2e::sameTree(e2e::servedFolder() + L"\\pkgsrc", dest));
}

} // namespace
