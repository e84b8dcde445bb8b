// Checkpoints: when one is due, the temporary files and their two-step commit, the progress record,
// reading back, and the numbering across resumed runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "FakePipeline.h"
#include "support/FakeRequest.h"
#include "FakeStore.h"
#include "QvDLMCodes.h"
#include "control/CheckpointFiles.h"
#include "control/DownloadImp.h"
#include "support/TestSupport.h"

using namespace qvdlm;

namespace {

FakeStore* g_store = nullptr;
DownloadRequestLog* fakeStore() { return g_store; }

class CheckpointTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_store = &store;
        dir = scratch / L"chk";
        CreateDirectoryW(dir.c_str(), nullptr);
        request = new FakeRequest(L"http://localhost:1/p.tar.lzma2");
        request->setDestDir((scratch / L"QV_1.tmp").c_str());
        request->setCheckpointDir(dir.c_str());
        request->setSaveInterval(100);
        env = fakeEnvironment(&stages, &fakeStore);
        job.reset(makeDownload(request, nullptr, env));
        store.add(request);
    }
    void TearDown() override
    {
        job.reset();
        g_store = nullptr;
    }
    bool exists(const std::wstring& name) { return qvtest::fileExists(dir + L"\\" + name); }
    std::vector<std::wstring> files()
    {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        HANDLE find = FindFirstFileW((dir + L"\\*.chk").c_str(), &data);
        if (find != INVALID_HANDLE_VALUE) {
            do
                names.push_back(data.cFileName);
            while (FindNextFileW(find, &data));
            FindClose(find);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // One checkpoint of three stages as the workers write it: source asks, middle joins, sink commits.
    void checkpointAll(unsigned id, uint64_t value)
    {
        source.value = value;
        middle.value = value + 1;
        sink.value = value + 2;
        ASSERT_TRUE(job->saveCheckpoint(L"Http", id, &source, true, false));
        ASSERT_TRUE(job->saveCheckpoint(L"Lzma", id, &middle, false, false));
        ASSERT_TRUE(job->saveCheckpoint(L"xTar", id, &sink, false, true));
    }

    qvtest::ScratchDir scratch{L"control-checkpoint"};
    std::wstring dir;
    FakeStore store;
    FakeStages stages;
    JobEnvironment env;
    FakeRequest* request = nullptr;
    std::unique_ptr<DownloadImp> job;
    FakeStage source{L"s", {}}, middle{L"m", {}}, sink{L"t", {}};
};

TEST(CheckpointNames, TemporaryAndCommittedFormsCarryEightDigitsAndTheStage)
{
    EXPECT_EQ(qv::CheckpointFiles::tempPath(L"C:\\c", 7, L"Lzma"), L"C:\\c\\_tmp_00000007_Lzma.chk");
    EXPECT_EQ(qv::CheckpointFiles::committedPath(L"C:\\c", 7, L"Lzma"), L"C:\\c\\00000007_Lzma.chk");
    EXPECT_EQ(qv::CheckpointFiles::committedPath(L"D:\\x", 123456789, L"Http"), L"D:\\x\\123456789_Http.chk");
}

TEST_F(CheckpointTest, DueOnlyAfterTheIntervalAndThenJoinedByTheSameId)
{
    request->setBlockDownloadedSize(100);
    EXPECT_FALSE(job->checkpointDue(1, true)); // not more than the interval yet
    request->setBlockDownloadedSize(101);
    EXPECT_FALSE(job->checkpointDue(1, false)); // only an asking stage opens one
    EXPECT_TRUE(job->checkpointDue(1, true));
    EXPECT_TRUE(job->checkpointDue(1, false));
    EXPECT_FALSE(job->checkpointDue(2, true)); // one at a time
    EXPECT_FALSE(job->checkpointDue(2, false));
}

TEST_F(CheckpointTest, NoneOpensWhileTheSourceStandsAtItsBlocksEnd)
{
    request->setContentLength(1000);
    request->setBlockDownloadedSize(1000);
    EXPECT_FALSE(job->checkpointDue(1, true));
    request->setBlockId(0);
    request->setTotalDownloadedSize(1000); // the next block has begun
    request->setBlockDownloadedSize(0);
    request->setContentLength(500);
    EXPECT_TRUE(job->checkpointDue(2, true));
}

TEST_F(CheckpointTest, AZeroIntervalMakesEveryNewByteDue)
{
    request->setSaveInterval(0);
    EXPECT_FALSE(job->checkpointDue(1, true));
    request->setBlockDownloadedSize(1);
    EXPECT_TRUE(job->checkpointDue(1, true));
}

TEST_F(CheckpointTest, NothingDueWritesNothingAndIsNoFailure)
{
    EXPECT_TRUE(job->saveCheckpoint(L"Http", 1, &source, true, false));
    EXPECT_TRUE(files().empty());
    EXPECT_FALSE(job->saveCheckpoint(nullptr, 1, &source, true, false));
    EXPECT_FALSE(job->saveCheckpoint(L"Http", 1, nullptr, true, false));
}

TEST_F(CheckpointTest, StagesWriteTemporaryFilesUntilTheLastOneCommits)
{
    request->setBlockDownloadedSize(500);
    source.value = 11;
    ASSERT_TRUE(job->saveCheckpoint(L"Http", 7, &source, true, false));
    ASSERT_TRUE(job->saveCheckpoint(L"Lzma", 7, &middle, false, false));
    EXPECT_EQ(files(), (std::vector<std::wstring>{L"_tmp_00000007_Http.chk", L"_tmp_00000007_Lzma.chk"}));
    EXPECT_EQ(request->getCheckpointId(), 7u);
    EXPECT_TRUE(store.progressSaves.empty());

    ASSERT_TRUE(job->saveCheckpoint(L"xTar", 7, &sink, false, true));
    EXPECT_EQ(files(), (std::vector<std::wstring>{L"00000007_Http.chk", L"00000007_Job.chk", L"00000007_Lzma.chk",
                                                  L"00000007_xTar.chk"}));
    EXPECT_EQ(store.progressSaves, std::vector<uint32_t>{7});
    EXPECT_EQ(store.record(request->getId()).checkpointId, 7u);
    std::string bytes;
    ASSERT_TRUE(qvtest::readFile(dir + L"\\00000007_Http.chk", bytes));
    ASSERT_EQ(bytes.size(), sizeof(FakeStageRecord));
    EXPECT_EQ(reinterpret_cast<const FakeStageRecord*>(bytes.data())->value, 11u);
    // The checkpoint is closed: the next due one can open.
    request->setBlockDownloadedSize(700);
    EXPECT_TRUE(job->checkpointDue(8, true));
}

TEST_F(CheckpointTest, ACommitDeletesThePreviousCheckpoint)
{
    request->setBlockDownloadedSize(200);
    checkpointAll(3, 30);
    request->setBlockDownloadedSize(400);
    checkpointAll(4, 40);
    for (const auto& name : files())
        EXPECT_EQ(name.rfind(L"00000004_", 0), 0u) << qvtest::narrow(name);
    EXPECT_EQ(files().size(), 4u);
}

TEST_F(CheckpointTest, ACommitUnderThePreviousIdDeletesWhatItJustCommitted)
{
    request->setBlockDownloadedSize(200);
    checkpointAll(5, 50);
    request->setBlockDownloadedSize(400);
    checkpointAll(5, 60);
    EXPECT_TRUE(files().empty());
}

TEST_F(CheckpointTest, AnInterruptedCheckpointLeavesThePreviousOneReadable)
{
    request->setBlockDownloadedSize(200);
    checkpointAll(3, 30);
    request->setBlockDownloadedSize(400);
    source.value = 99;
    ASSERT_TRUE(job->saveCheckpoint(L"Http", 4, &source, true, false));
    // The process dies here; a new one reads what the store names.
    const uint32_t stored = store.record(request->getId()).checkpointId;
    EXPECT_EQ(stored, 3u);
    request->setCheckpointId(stored);
    FakeStage fresh{L"f", {}};
    unsigned id = 0;
    ASSERT_TRUE(job->loadCheckpoint(L"Http", &id, &fresh));
    EXPECT_EQ(id, 3u);
    EXPECT_EQ(fresh.value, 30u);
    EXPECT_TRUE(exists(L"_tmp_00000004_Http.chk"));
}

TEST_F(CheckpointTest, LoadWithoutCheckpointOrFileAnswersFalse)
{
    FakeStage fresh{L"f", {}};
    unsigned id = 99;
    EXPECT_FALSE(job->loadCheckpoint(L"Http", &id, &fresh)); // CHKPT_ID 0
    EXPECT_EQ(id, 99u);
    request->setCheckpointId(12);
    EXPECT_FALSE(job->loadCheckpoint(L"Http", &id, &fresh)); // no file
    ASSERT_TRUE(qvtest::writeFile(dir + L"\\00000012_Http.chk", ""));
    EXPECT_FALSE(job->loadCheckpoint(L"Http", &id, &fresh)); // empty file
    ASSERT_TRUE(qvtest::writeFile(dir + L"\\00000012_Http.chk", "abc"));
    EXPECT_FALSE(job->loadCheckpoint(L"Http", &id, &fresh)); // refused by the stage
    EXPECT_FALSE(fresh.restored);
    EXPECT_FALSE(job->loadCheckpoint(nullptr, &id, &fresh));
}

TEST_F(CheckpointTest, ARecordCutShorterThanItClaimsIsRefused)
{
    request->setCheckpointId(12);
    FakeStage fresh{L"f", {}};
    unsigned id = 0;
    const FakeStageRecord whole{sizeof(FakeStageRecord), 0, 77};
    const std::string bytes(reinterpret_cast<const char*>(&whole), sizeof whole);
    // The size field still claims the whole record; the stage would read past the file's end.
    ASSERT_TRUE(qvtest::writeFile(dir + L"\\00000012_Http.chk", bytes.substr(0, 8)));
    EXPECT_FALSE(job->loadCheckpoint(L"Http", &id, &fresh));
    EXPECT_FALSE(fresh.restored);
    ASSERT_TRUE(qvtest::writeFile(dir + L"\\00000012_Http.chk", bytes));
    EXPECT_TRUE(job->loadCheckpoint(L"Http", &id, &fresh));
    EXPECT_EQ(77u, fresh.value);
}

TEST_F(CheckpointTest, AFailingSnapshotWritesNothing)
{
    class EmptyStage final : public StreamWriter {
    public:
        void close() override {}
        bool restoreState(const StreamStateHeader*) override { return false; }
        uint64_t saveState(StreamStateHeader*, uint64_t*) override { return 0; }
        int64_t writeBytes(const uint8_t*, uint32_t) override { return 0; }
    } empty;
    request->setBlockDownloadedSize(500);
    EXPECT_FALSE(job->saveCheckpoint(L"Lzma", 2, &empty, true, false));
    EXPECT_TRUE(files().empty());
}

TEST_F(CheckpointTest, ARunResumesTheProgressOfItsCheckpointAndNumbersOnFromIt)
{
    request->setBlocks({L"http://localhost:1/p_001_003.tar.lzma2", L"http://localhost:1/p_002_003.tar.lzma2",
                        L"http://localhost:1/p_003_003.tar.lzma2"});
    request->setBlockId(1);
    request->setTotalDownloadedSize(1000);
    request->setBlockDownloadedSize(300);
    checkpointAll(9, 90); // the source's position belongs to block 1 at 300 bytes
    request->setExtractedSize(5000);
    // The source ran ahead into the next block before the process stopped.
    request->setBlockId(2);
    request->setTotalDownloadedSize(2000);
    request->setBlockDownloadedSize(50);
    store.put(request->getId(), [&] {
        StoredRequest s = store.record(request->getId());
        s.blockId = 2;
        return s;
    }());

    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return stages.connects == 1; }));
    // The run started from block 1 and the counters of the checkpoint, not from where the source had got.
    EXPECT_EQ(stages.made.back()->what, L"http://localhost:1/p_002_003.tar.lzma2");
    EXPECT_EQ(stages.made.back()->value, 90u);
    EXPECT_EQ(request->getTotalDownloadedSize(), 1000u);
    EXPECT_EQ(request->getBlockDownloadedSize(), 300u);
    EXPECT_EQ(request->getExtractedSize(), 0u);
    job->abort(false);
    ASSERT_TRUE(job->waitForControlThread(10000));
}

TEST_F(CheckpointTest, TheFirstCommitOfAResumedRunDeletesTheCheckpointItResumedFrom)
{
    request->setBlockDownloadedSize(200);
    checkpointAll(12, 120);
    ASSERT_TRUE(job->buildPipeline());
    ASSERT_NE(job->start(), nullptr);
    ASSERT_TRUE(waitUntil([&] { return stages.connects == 1; }));
    PipelineJob* pipeline = job.get();
    request->setBlockDownloadedSize(request->getBlockDownloadedSize() + 1000);
    FakeStage a{L"a", {}}, b{L"b", {}}, c{L"c", {}};
    pipeline->checkpoint(L"Http", 13, &a, true, false);
    pipeline->checkpoint(L"Lzma", 13, &b, false, false);
    pipeline->checkpoint(L"xTar", 13, &c, false, true);
    EXPECT_TRUE(exists(L"00000013_Http.chk"));
    EXPECT_FALSE(exists(L"00000012_Http.chk"));
    EXPECT_EQ(store.record(request->getId()).checkpointId, 13u);
    job->abort(false);
    ASSERT_TRUE(job->waitForControlThread(10000));
}

} // namespace
