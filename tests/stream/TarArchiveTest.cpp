// The tar sink against archives that GNU tar and Python's tarfile made at test time (ctest fixture
// tar_fixture.py): byte-identical extraction in any chunking, checkpoints mid-entry, and a corpus of
// archives that try to write outside the destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "QvDLMCodes.h"
#include "TarTestSupport.h"
#include "stream/StreamUnpack.h"
#include "stream/TARStreamWriterImp.h"
#include "support/Md5.h"
#include "support/TestSupport.h"

namespace tarerror = qvdlm::tarerror;

namespace {

struct ManifestEntry {
    char kind = 0; // 'F' file, 'D' folder, 'S' symbolic link
    std::string path;
    uint64_t size = 0;
    std::string md5;
    int64_t mtime = 0;
    bool readOnly = false;
    std::string target;
};

std::vector<std::string> splitTabs(const std::string& line)
{
    std::vector<std::string> fields;
    std::stringstream in(line);
    std::string field;
    while (std::getline(in, field, '\t'))
        fields.push_back(field);
    return fields;
}

std::wstring fixtureFolder()
{
    std::wstring root = qvtest::env(L"QVDLM_TEST_WORK");
    if (!root.empty() && root[0] == L'/') {
        root = L"Z:" + root;
        std::replace(root.begin(), root.end(), L'/', L'\\');
    }
    return root + L"\\tar-archives";
}

std::string fixtureFile(const std::string& name)
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(fixtureFolder() + L"\\" + qvtest::widen(name), bytes)) << name;
    return bytes;
}

std::vector<ManifestEntry> manifest(const std::string& format)
{
    std::vector<ManifestEntry> out;
    std::stringstream in(fixtureFile(format + ".manifest"));
    std::string line;
    while (std::getline(in, line)) {
        const auto f = splitTabs(line);
        if (f.size() < 2)
            continue;
        ManifestEntry e;
        e.kind = f[0][0];
        e.path = f[1];
        if (e.kind == 'F' && f.size() == 6) {
            e.size = std::stoull(f[2]);
            e.md5 = f[3];
            e.mtime = std::stoll(f[4]);
            e.readOnly = f[5] == "1";
        } else if (e.kind == 'S' && f.size() == 3) {
            e.target = f[2];
        }
        out.push_back(e);
    }
    return out;
}

std::wstring backslashed(const std::string& path)
{
    std::wstring w = qvtest::widen(path);
    std::replace(w.begin(), w.end(), L'/', L'\\');
    return w;
}

// The extracted tree against the manifest: every file byte-identical with its time and attribute,
// every folder, nothing more; symbolic links as recorded calls when links is given.
void expectTree(const std::wstring& dest, const std::vector<ManifestEntry>& expected,
                const std::vector<std::pair<std::wstring, std::wstring>>* links)
{
    const auto tree = tartest::readTree(dest);
    size_t onDisk = 0;
    for (const ManifestEntry& e : expected) {
        SCOPED_TRACE(e.path);
        if (e.kind == 'S') {
            if (!links) {
                // Where the system makes no link, a copy of its target (a whole folder, maybe) stands in.
                for (const auto& entry : tree)
                    onDisk += entry.first == e.path || entry.first.rfind(e.path + "/", 0) == 0;
                continue;
            }
            const std::wstring suffix = L"\\" + backslashed(e.path);
            const auto call = std::find_if(links->begin(), links->end(), [&](const auto& c) {
                return c.first.size() >= suffix.size() &&
                       c.first.compare(c.first.size() - suffix.size(), suffix.size(), suffix) == 0;
            });
            ASSERT_NE(call, links->end()) << "no link made";
            EXPECT_EQ(call->second, backslashed(e.target));
            continue;
        }
        ++onDisk;
        const auto found = tree.find(e.path);
        ASSERT_NE(found, tree.end()) << "missing";
        EXPECT_EQ(found->second.folder, e.kind == 'D');
        if (e.kind == 'F') {
            EXPECT_EQ(found->second.content.size(), e.size);
            EXPECT_EQ(qvtest::md5Hex(found->second.content), e.md5);
            EXPECT_EQ(found->second.mtime, e.mtime);
            EXPECT_EQ(found->second.readOnly, e.readOnly);
        }
    }
    EXPECT_EQ(tree.size(), onDisk) << "extra entries in the destination";
    if (links) {
        size_t expectedLinks = std::count_if(expected.begin(), expected.end(), [](const auto& e) { return e.kind == 'S'; });
        EXPECT_EQ(links->size(), expectedLinks);
    }
}

// Writes bytes in the chunk sizes that the generator gives, all of them.
bool feedRandomly(TARStreamWriterImp& sink, const std::string& bytes, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> size(1, 70000);
    for (size_t at = 0; at < bytes.size();) {
        const size_t n = std::min(size(rng), bytes.size() - at);
        if (!tartest::feed(sink, bytes, n, at, at + n))
            return false;
        at += n;
    }
    return true;
}

struct ChunkCase {
    const char* format;
    size_t chunk; // 0: random sizes
};

std::string caseName(const testing::TestParamInfo<ChunkCase>& info)
{
    return std::string(info.param.format) + "_" + (info.param.chunk ? std::to_string(info.param.chunk) : "random");
}

class TarArchiveChunks : public testing::TestWithParam<ChunkCase> {};

} // namespace

TEST_P(TarArchiveChunks, ExtractsByteIdenticalWithNamesAndTimes)
{
    const ChunkCase& c = GetParam();
    const std::string archive = fixtureFile(std::string(c.format) + ".tar");
    const auto expected = manifest(c.format);
    ASSERT_FALSE(archive.empty());
    ASSERT_GE(expected.size(), 20u);

    qvtest::ScratchDir dest(L"tar-archive");
    TARStreamWriterImp sink(dest.path().c_str());
    tartest::LinkRecorder links;
    const bool fed = c.chunk ? tartest::feed(sink, archive, c.chunk) : feedRandomly(sink, archive, 20240611);
    ASSERT_TRUE(fed) << "status " << std::hex << sink.lastStatus();
    EXPECT_TRUE(sink.unpacker()->finish());
    EXPECT_EQ(sink.lastStatus(), 0u);
    const auto calls = links.calls();
    expectTree(dest.path(), expected, &calls);
}

INSTANTIATE_TEST_SUITE_P(Formats, TarArchiveChunks,
                         testing::Values(ChunkCase{"gnu", 1}, ChunkCase{"gnu", 100}, ChunkCase{"gnu", 511},
                                         ChunkCase{"gnu", 512}, ChunkCase{"gnu", 513}, ChunkCase{"gnu", 4096},
                                         ChunkCase{"gnu", 65543}, ChunkCase{"gnu", 1 << 20},
                                         ChunkCase{"gnu", 4 << 20}, ChunkCase{"gnu", 0}, ChunkCase{"ustar", 1},
                                         ChunkCase{"ustar", 333}, ChunkCase{"ustar", 512}, ChunkCase{"ustar", 4 << 20},
                                         ChunkCase{"ustar", 0}),
                         caseName);

TEST(TarArchive, ACheckpointMidEntryRestoredIntoAFreshSinkGivesTheSameTree)
{
    const std::string archive = fixtureFile("gnu.tar");
    const auto expected = manifest("gnu");
    ASSERT_FALSE(archive.empty());
    const size_t longName = archive.find("././@LongLink");
    ASSERT_NE(longName, std::string::npos);
    const size_t cuts[] = {archive.size() / 3, archive.size() / 2 + 4097, longName + 512 + 300, longName + 100,
                           7777, archive.size() - 10240 - 3};
    for (size_t cut : cuts) {
        SCOPED_TRACE(cut);
        qvtest::ScratchDir dest(L"tar-archive-cp");
        std::vector<uint8_t> record;
        {
            TARStreamWriterImp first(dest.path().c_str());
            ASSERT_TRUE(tartest::feed(first, archive, 65536, 0, cut));
            const uint64_t size = first.saveState(nullptr, nullptr);
            record.resize(size);
            uint64_t capacity = size;
            ASSERT_EQ(first.saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity), size);
            // Work done after the checkpoint is lost with the process.
            ASSERT_TRUE(tartest::feed(first, archive, 65536, cut, std::min(archive.size(), cut + 300000)));
        }
        TARStreamWriterImp restored;
        ASSERT_TRUE(restored.restoreState(reinterpret_cast<const StreamStateHeader*>(record.data())));
        ASSERT_TRUE(tartest::feed(restored, archive, 4 << 20, cut));
        EXPECT_TRUE(restored.unpacker()->finish());
        expectTree(dest.path(), expected, nullptr);
    }
}

TEST(TarArchive, AnArchiveCutShortFailsAtItsEnd)
{
    const std::string archive = fixtureFile("gnu.tar");
    ASSERT_FALSE(archive.empty());
    const size_t longName = archive.find("././@LongLink");
    const size_t cuts[] = {archive.size() / 2, longName + 512 + 10, longName + 200};
    for (size_t cut : cuts) {
        SCOPED_TRACE(cut);
        qvtest::ScratchDir dest(L"tar-archive-cut");
        TARStreamWriterImp sink(dest.path().c_str());
        ASSERT_TRUE(tartest::feed(sink, archive, 65536, 0, cut));
        EXPECT_FALSE(sink.unpacker()->finish());
        EXPECT_EQ(sink.lastStatus(), tarerror::Truncated);
    }
}

TEST(TarArchive, HostileArchivesWriteNothingOutsideTheDestination)
{
    std::stringstream in(fixtureFile("hostile.manifest"));
    std::string line;
    size_t cases = 0;
    while (std::getline(in, line)) {
        const auto f = splitTabs(line);
        ASSERT_EQ(f.size(), 3u) << line;
        SCOPED_TRACE(f[0] + ": " + f[2]);
        ++cases;
        const uint32_t code = static_cast<uint32_t>(std::stoul(f[1], nullptr, 16));
        const std::string archive = fixtureFile("hostile/" + f[0]);

        qvtest::ScratchDir root(L"tar-hostile");
        const std::wstring dest = root / L"dest";
        CreateDirectoryW(dest.c_str(), nullptr);
        CreateDirectoryW((root / L"dest2").c_str(), nullptr);
        ASSERT_TRUE(qvtest::writeFile(root / L"bait.txt", "bait"));
        ASSERT_TRUE(qvtest::writeFile(root / L"dest2\\bait.txt", "bait"));

        TARStreamWriterImp sink(dest.c_str());
        tartest::LinkRecorder links;
        const bool fed = tartest::feed(sink, archive, 4096);
        EXPECT_FALSE(fed && sink.unpacker()->finish());
        EXPECT_EQ(sink.lastStatus(), code);

        auto tree = tartest::readTree(root.path());
        for (auto it = tree.begin(); it != tree.end();)
            it = it->first.rfind("dest/", 0) == 0 ? tree.erase(it) : std::next(it);
        EXPECT_EQ(tree.size(), 4u) << "something appeared beside the destination";
        EXPECT_EQ(tree["bait.txt"].content, "bait");
        EXPECT_EQ(tree["dest2/bait.txt"].content, "bait");
        for (const auto& call : links.calls())
            EXPECT_EQ(call.first.find(dest + L"\\"), 0u) << qvtest::narrow(call.first);
        for (const wchar_t* escaped : {L"Z:\\abs-evil.txt", L"C:\\abs-evil.txt", L"C:\\evil.txt", L"C:evil.txt",
                                       L"Z:\\evil-dir", L"C:\\evil-dir"})
            EXPECT_FALSE(qvtest::fileExists(escaped)) << qvtest::narrow(escaped);
    }
    EXPECT_GE(cases, 20u);
}

TEST(TarArchive, GarbageInsteadOfTarFailsWithTheStagesCode)
{
    const std::string archive = fixtureFile("gnu.tar");
    std::string flipped = archive;
    // Bytes of the first header damaged: the block no longer sums to its checksum.
    flipped[10] ^= 0x20;
    flipped[150] ^= 0x01;
    {
        qvtest::ScratchDir dest(L"tar-garbage");
        TARStreamWriterImp sink(dest.path().c_str());
        EXPECT_FALSE(tartest::feed(sink, flipped, 65536));
        EXPECT_EQ(sink.lastStatus(), tarerror::BadHeader);
        EXPECT_TRUE(tartest::readTree(dest.path()).empty());
    }
    qvtest::ScratchDir dest(L"tar-garbage-noise");
    TARStreamWriterImp sink(dest.path().c_str());
    const std::string noise = qvtest::patternBytes(1 << 20, 4242);
    const bool fed = tartest::feed(sink, noise, 65536);
    EXPECT_FALSE(fed && sink.unpacker()->finish());
    EXPECT_EQ(sink.lastStatus(), tarerror::BadHeader);
    EXPECT_TRUE(tartest::readTree(dest.path()).empty());
}

TEST(TarArchive, NothingGoesThroughALinkMadeEarlier)
{
    std::stringstream in(fixtureFile("linked.manifest"));
    std::string line;
    size_t cases = 0;
    while (std::getline(in, line)) {
        const auto f = splitTabs(line);
        ASSERT_EQ(f.size(), 3u) << line;
        SCOPED_TRACE(f[0] + ": " + f[2]);
        ++cases;
        const uint32_t code = static_cast<uint32_t>(std::stoul(f[1], nullptr, 16));
        const std::wstring folder = fixtureFolder() + L"\\linked\\" + qvtest::widen(f[0]);
        const std::wstring dest = folder + L"\\dest";
        // Wine shows a link to a folder as a reparse point, a link to a file as a plain file.
        ASSERT_NE(GetFileAttributesW((dest + L"\\s").c_str()), INVALID_FILE_ATTRIBUTES) << "fixture missing";
        std::string archive;
        ASSERT_TRUE(qvtest::readFile(folder + L"\\archive.tar", archive));

        TARStreamWriterImp sink(dest.c_str());
        tartest::LinkRecorder links;
        const bool fed = tartest::feed(sink, archive, 512);
        EXPECT_FALSE(fed);
        EXPECT_EQ(sink.lastStatus(), code);
        const auto outside = tartest::readTree(folder + L"\\outside");
        ASSERT_EQ(outside.size(), 1u) << "something was written into the linked folder";
        EXPECT_EQ(outside.begin()->second.content, "bait\n");
    }
    EXPECT_EQ(cases, 5u);
}
