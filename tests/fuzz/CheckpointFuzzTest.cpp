// Damaged checkpoint files read back by a download job: the records of the LZMA2 and tar stages, saved
// in the middle of a real package, then flipped, cut, lengthened, shortened or overwritten on disk. A
// restore must refuse what does not hold together (above all a record cut shorter than it claims),
// and a stage that did restore must go on without crashing, hanging or writing outside its folder.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FuzzMutate.h"
#include "QvDLMCodes.h"
#include "control/DownloadImp.h"
#include "control/FakePipeline.h"
#include "support/FakeRequest.h"
#include "control/FakeStore.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TarTestSupport.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

namespace {

FakeStore* g_store = nullptr;
DownloadRequestLog* fakeStore() { return g_store; }

constexpr unsigned kId = 12;

std::string record(Stream& stage)
{
    uint64_t capacity = 0;
    const uint64_t size = stage.saveState(nullptr, &capacity);
    if (size == 0 || size > 0x10000000)
        return {};
    std::vector<uint64_t> buffer(static_cast<size_t>((size + 7) / 8));
    capacity = size;
    stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &capacity);
    return std::string(reinterpret_cast<const char*>(buffer.data()), static_cast<size_t>(size));
}

// Writes input in one go and drains the decoder within a bound; false on a failure.
bool decode(LZMA2StreamWriterImp& stage, const std::string& input, std::string* out = nullptr)
{
    if (input.empty())
        return true;
    if (stage.writeBytes(reinterpret_cast<const uint8_t*>(input.data()), static_cast<uint32_t>(input.size())) < 0)
        return false;
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(64 * 1024);
    for (int i = 0; i < 100000; ++i) {
        const uint32_t n = reader->readBytes(slot.data(), static_cast<uint32_t>(slot.size()));
        if (reader->lastStatus() != 0)
            return false;
        if (n > slot.size()) {
            ADD_FAILURE() << "decoder answered more than the slot holds";
            return false;
        }
        if (n == 0)
            return true;
        if (out)
            out->append(reinterpret_cast<const char*>(slot.data()), n);
    }
    ADD_FAILURE() << "decoder drain did not end";
    return false;
}

// Damage of one of the kinds, or a size field that claims more or less than the file holds.
std::string damageRecord(std::string& bytes, fuzz::Rng& rng, bool& cutShort)
{
    cutShort = false;
    const uint64_t kind = rng.below(7);
    if (kind == 6) {
        uint32_t size = 0;
        std::memcpy(&size, bytes.data(), 4);
        size = rng.chance(50) ? size + 1 + static_cast<uint32_t>(rng.below(1u << 20)) : 0xFFFFFFFFu;
        std::memcpy(bytes.data(), &size, 4);
        cutShort = true;
        return "size field claims more";
    }
    if (kind == 5) { // cut inside the fixed part or the tables, the size field untouched
        bytes.resize(static_cast<size_t>(4 + rng.below(bytes.size() - 4)));
        cutShort = true;
        return "cut to " + std::to_string(bytes.size());
    }
    const auto damage = static_cast<fuzz::Damage>(kind);
    const size_t before = bytes.size();
    // Mostly the fixed part, where the fields are; sometimes anywhere.
    const size_t to = rng.chance(70) ? std::min<size_t>(bytes.size(), 2048) : bytes.size();
    std::string what = fuzz::damage(bytes, rng, damage, 0, to);
    uint32_t size = 0;
    if (bytes.size() >= 4)
        std::memcpy(&size, bytes.data(), 4);
    cutShort = bytes.size() < before && size > bytes.size();
    return what;
}

class CheckpointFuzz : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_store = &store;
        dir = scratch / L"chk";
        ASSERT_TRUE(CreateDirectoryW(dir.c_str(), nullptr));
        request = new FakeRequest(L"http://localhost:1/p.tar.lzma2");
        request->setDestDir((scratch / L"QV_1.tmp").c_str());
        request->setCheckpointDir(dir.c_str());
        env = fakeEnvironment(&stages, &fakeStore);
        job.reset(makeDownload(request, nullptr, env));
        store.add(request);
        request->setCheckpointId(kId);
    }
    void TearDown() override
    {
        job.reset();
        g_store = nullptr;
    }
    bool load(const wchar_t* stageName, const std::string& bytes, Stream& stage)
    {
        wchar_t name[64];
        swprintf(name, 64, L"\\%08u_%ls.chk", kId, stageName);
        EXPECT_TRUE(qvtest::writeFile(dir + name, bytes));
        unsigned id = 0;
        return job->loadCheckpoint(stageName, &id, &stage) != 0;
    }

    qvtest::ScratchDir scratch{L"fuzz-checkpoint"};
    std::wstring dir;
    FakeStore store;
    FakeStages stages;
    JobEnvironment env;
    FakeRequest* request = nullptr;
    std::unique_ptr<DownloadImp> job;
};

} // namespace

TEST_F(CheckpointFuzz, DamagedDecoderRecordsAreRefusedOrDecodeOnSafely)
{
    std::string package;
    ASSERT_TRUE(qvtest::readFile(qvtest::wwwDir() + L"\\pipeline-gnu.tar.lzma2", package));
    ASSERT_GT(package.size(), 4096u);
    const size_t half = package.size() / 2;
    std::string good;
    {
        LZMA2StreamWriterImp stage;
        ASSERT_TRUE(decode(stage, package.substr(0, half)));
        good = record(stage);
    }
    ASSERT_GT(good.size(), 176u);
    {
        LZMA2StreamWriterImp stage; // the intact record restores and decodes on to the end
        ASSERT_TRUE(load(L"Lzma", good, stage));
        ASSERT_TRUE(decode(stage, package.substr(half)));
        EXPECT_TRUE(stage.endOfInput());
    }

    int refused = 0;
    for (const uint64_t seed : fuzz::seeds("checkpoint lzma", 60)) {
        fuzz::Rng rng(seed);
        std::string bytes = good;
        bool cutShort = false;
        const std::string what = damageRecord(bytes, rng, cutShort);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + what);
        LZMA2StreamWriterImp stage;
        const bool restored = load(L"Lzma", bytes, stage);
        if (cutShort) {
            EXPECT_FALSE(restored) << "a record cut shorter than it claims was taken";
        }
        if (!restored) {
            ++refused;
            continue;
        }
        std::string out;
        const bool ok = decode(stage, package.substr(half), &out);
        if (!ok) {
            EXPECT_NE(0u, stage.lastStatus());
        }
        EXPECT_LE(out.size(), 64u * 1024 * 1024);
    }
    std::printf("[fuzz] checkpoint lzma: %d refused\n", refused);
    EXPECT_GT(refused, 0);
}

TEST_F(CheckpointFuzz, DamagedTarRecordsNeverLeadOutOfTheDestination)
{
    const std::wstring root = scratch / L"tree";
    const std::wstring dest = root + L"\\dest";
    ASSERT_TRUE(CreateDirectoryW(root.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((root + L"\\dest2").c_str(), nullptr));
    ASSERT_TRUE(qvtest::writeFile(root + L"\\dest2\\keep.txt", "sibling"));
    tartest::TarBuilder tar;
    tar.folder("sub/").file("sub/one.bin", qvtest::patternBytes(3000, 1)).file(std::string(150, 'n'), "long");
    tar.file("sub/two.bin", qvtest::patternBytes(5000, 2));
    const std::string archive = tar.bytes();
    const size_t cut = 512 * 3 + 700; // inside the data of sub/one.bin

    // The destination as the interrupted run left it; answers that run's checkpoint record.
    auto interrupted = [&] {
        qvtest::removeTree(dest);
        EXPECT_TRUE(CreateDirectoryW(dest.c_str(), nullptr));
        TARStreamWriterImp sink(dest.c_str());
        EXPECT_TRUE(tartest::feed(sink, archive, 4096, 0, cut));
        return record(sink);
    };
    const std::string good = interrupted();
    ASSERT_FALSE(good.empty());
    {
        // The intact record restores, and the rest of the archive completes the tree.
        EXPECT_EQ(good, interrupted());
        TARStreamWriterImp sink(dest.c_str());
        ASSERT_TRUE(load(L"xTar", good, sink));
        ASSERT_TRUE(tartest::feed(sink, archive, 4096, cut));
        EXPECT_TRUE(sink.endOfInput());
        const auto tree = tartest::readTree(dest);
        ASSERT_EQ(1u, tree.count("sub/two.bin"));
        EXPECT_EQ(qvtest::patternBytes(3000, 1), tree.at("sub/one.bin").content);
    }

    int refused = 0;
    for (const uint64_t seed : fuzz::seeds("checkpoint tar", 60)) {
        fuzz::Rng rng(seed);
        std::string bytes = good;
        bool cutShort = false;
        const std::string what = damageRecord(bytes, rng, cutShort);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + what);
        interrupted();
        {
            TARStreamWriterImp sink(dest.c_str());
            const bool restored = load(L"xTar", bytes, sink);
            if (cutShort) {
                EXPECT_FALSE(restored) << "a record cut shorter than it claims was taken";
            }
            if (!restored) {
                ++refused;
            } else if (!tartest::feed(sink, archive, 1 + rng.below(3000), cut) || !sink.endOfInput()) {
                const uint32_t status = sink.lastStatus();
                EXPECT_EQ(qvdlm::TarErrorBase, status & 0xFF000000u) << std::hex << status;
            }
        }
        const auto tree = tartest::readTree(root);
        for (const auto& [name, entry] : tree)
            ASSERT_TRUE(name == "dest2" || name == "dest2/keep.txt" || name == "dest" || name.rfind("dest/", 0) == 0)
                << "outside the destination: " << name;
        ASSERT_EQ("sibling", tree.at("dest2/keep.txt").content);
    }
    std::printf("[fuzz] checkpoint tar: %d refused\n", refused);
    EXPECT_GT(refused, 0);
}
