// Damaged copies of a real package (the GNU tar fixture as .tar.lzma2) through the middle and sink
// threads with the real LZMA2 and tar stages: bit flips, cuts, inserted and deleted bytes, bad
// property bytes. Every run must end (bounded joins), a failure must be published with its status,
// a cut or unusable stream must never pass as complete, and nothing may land outside the destination.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FuzzMutate.h"
#include "QvDLMCodes.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/PipelineFakes.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TarTestSupport.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

using fakes::kTimedOut;
namespace msg = qvdlm::msg;
namespace event = qvdlm::event;

namespace {

std::string package()
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(qvtest::wwwDir() + L"\\pipeline-gnu.tar.lzma2", bytes));
    return bytes;
}

bool isSinkFailure(uint32_t code)
{
    return code == qvdlm::status::GeneralError || (code & 0xFF000000u) == qvdlm::TarErrorBase;
}

// Source -> LZMA2 -> tar sink into dest, the source answering from `packed` in reads of random size.
struct PackageRig : fakes::Rig {
    std::string packed;
    TARStreamWriterImp* tar = nullptr;

    PackageRig(std::string bytes, const std::wstring& dest, fuzz::Rng& rng) : packed(std::move(bytes))
    {
        bufferSize = rng.chance(50) ? 4096 : 64 * 1024;
        request.lzma = true;
        source = new fakes::ScriptedSource(request.getUrl(false), 0, 0, &services.alive);
        add(source, 1, L"Http");
        add(new LZMA2StreamWriterImp, 2, L"Lzma");
        tar = new TARStreamWriterImp(dest.c_str());
        add(tar, 1, L"xTar");
        source->content = &packed;
        for (size_t at = 0; at < packed.size();) {
            const size_t n = std::min<size_t>(1 + rng.below(70000), packed.size() - at);
            source->script.push_back({static_cast<uint32_t>(n), 0});
            at += n;
        }
        request.contentLength = static_cast<int64_t>(packed.size());
        request.blockLengths[0] = request.contentLength;
        fakes::abortOnErrorEvents(*this);
    }
};

} // namespace

TEST(LzmaFuzz, DamagedPackagesFailCleanlyAndStayInside)
{
    const std::string good = package();
    ASSERT_GT(good.size(), 64u);
    qvtest::ScratchDir root(L"fuzz-lzma");
    const std::wstring dest = root / L"dest";
    ASSERT_TRUE(CreateDirectoryW((root / L"dest2").c_str(), nullptr));
    ASSERT_TRUE(qvtest::writeFile(root / L"dest2\\keep.txt", "sibling"));
    ASSERT_TRUE(qvtest::writeFile(root / L"sentinel.txt", "parent"));

    int failed = 0;
    for (const uint64_t seed : fuzz::seeds("lzma", 30)) {
        fuzz::Rng rng(seed);
        std::string packed = good;
        std::string what;
        const uint64_t kind = rng.below(6);
        if (kind == 5) {
            packed[0] = static_cast<char>(41 + rng.below(215)); // no dictionary size of LZMA2
            what = "property byte " + std::to_string(uint8_t(packed[0]));
        } else {
            what = fuzz::damage(packed, rng, static_cast<fuzz::Damage>(kind), 1, packed.size());
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + what);

        qvtest::removeTree(dest);
        ASSERT_TRUE(CreateDirectoryW(dest.c_str(), nullptr));
        bool decodeFailed = false;
        bool unpackFailed = false;
        bool completed = false;
        {
            PackageRig rig(packed, dest, rng);
            const auto codes = rig.run();
            ASSERT_EQ(3u, codes.size());
            for (uint32_t code : codes)
                ASSERT_NE(kTimedOut, code) << "a stage thread did not end";
            decodeFailed = rig.events.count(event::Error, msg::DecompressFailed) > 0;
            unpackFailed = rig.events.count(event::Error, msg::UnpackageFailed) > 0;
            completed = rig.events.count(event::Information, msg::UnpackageCompleted) > 0;
            EXPECT_LE(rig.events.count(event::Error, msg::DecompressFailed), 1);
            if (decodeFailed) {
                const auto statuses = rig.job.statuses();
                EXPECT_NE(statuses.end(), std::find(statuses.begin(), statuses.end(), qvdlm::status::GeneralError));
                EXPECT_NE(0u, codes[1]);
            }
            if (unpackFailed) {
                EXPECT_TRUE(isSinkFailure(codes[2])) << std::hex << codes[2];
            }
            if (completed) {
                EXPECT_EQ(0u, codes[2]);
            }
        }
        EXPECT_NE(completed, decodeFailed || unpackFailed) << "a run must either complete or fail";
        if (kind == static_cast<uint64_t>(fuzz::Damage::Truncate) || kind == 5) {
            EXPECT_TRUE(decodeFailed) << "a cut or unusable stream passed";
            EXPECT_FALSE(completed);
        }
        if (kind == 5) {
            EXPECT_TRUE(tartest::readTree(dest).empty()) << "decoded with a bad property byte";
        }
        failed += completed ? 0 : 1;

        std::string kept;
        ASSERT_TRUE(qvtest::readFile(root / L"dest2\\keep.txt", kept));
        ASSERT_EQ("sibling", kept);
        ASSERT_TRUE(qvtest::readFile(root / L"sentinel.txt", kept));
        ASSERT_EQ("parent", kept);
        const auto all = tartest::readTree(root.path());
        for (const auto& [name, entry] : all)
            ASSERT_TRUE(name == "dest2" || name == "dest2/keep.txt" || name == "sentinel.txt" || name == "dest" ||
                        name.rfind("dest/", 0) == 0)
                << "outside the destination: " << name;
    }
    std::printf("[fuzz] lzma: %d runs failed as expected\n", failed);
    EXPECT_GT(failed, 0);
}
