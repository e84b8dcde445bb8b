// The middle thread with the real LZMA2 stage between a scripted source and a collecting sink:
// whole streams arrive intact, cut or damaged ones fail the job instead of completing.
#include <gtest/gtest.h>

#include <string>

#include "Lzma2TestInputs.h"
#include "PipelineFakes.h"
#include "stream/LZMA2StreamWriterImp.h"

using fakes::kTimedOut;
using fakes::Rig;
namespace msg = qvdlm::msg;
namespace event = qvdlm::event;

namespace {

constexpr uint64_t kSlot = 64 * 1024;

// A package pipeline over `packed`, delivered in reads of `read` bytes.
struct LzmaRig : Rig {
    std::string packed;
    LZMA2StreamWriterImp* decoder = nullptr;

    LzmaRig(std::string bytes, uint32_t read) : packed(std::move(bytes))
    {
        bufferSize = kSlot;
        decoder = new LZMA2StreamWriterImp;
        package(decoder);
        source->content = &packed;
        for (size_t at = 0; at < packed.size(); at += read)
            source->script.push_back({static_cast<uint32_t>(std::min<size_t>(read, packed.size() - at)), 0});
        request.contentLength = static_cast<int64_t>(packed.size());
    }
};

} // namespace

TEST(LzmaPipeline, WholeStreamArrivesIntact)
{
    for (const char* name : {"tiny", "dict1m", "stored"}) {
        const lzma2test::Input& in = lzma2test::input(name);
        ASSERT_FALSE(in.packed.empty()) << name;
        LzmaRig rig(in.packed, 50000);
        const auto codes = rig.run();
        EXPECT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), codes) << name;
        EXPECT_TRUE(rig.sink->bytes == in.plain) << name << ": " << rig.sink->bytes.size() << " of " << in.plain.size();
        EXPECT_EQ(1, rig.events.count(event::Information, msg::DecompressCompleted)) << name;
        EXPECT_EQ(1, rig.events.count(event::Information, msg::UnpackageCompleted)) << name;
    }
}

TEST(LzmaPipeline, OddReadSizesChangeNothing)
{
    const lzma2test::Input& in = lzma2test::input("dict64k");
    ASSERT_FALSE(in.packed.empty());
    LzmaRig rig(in.packed, 777);
    EXPECT_EQ(std::vector<uint32_t>({0u, 0u, 0u}), rig.run());
    EXPECT_TRUE(rig.sink->bytes == in.plain);
}

TEST(LzmaPipeline, StreamCutShortFailsTheJob)
{
    const lzma2test::Input& in = lzma2test::input("dict1m");
    ASSERT_GT(in.packed.size(), 1000u);
    LzmaRig rig(in.packed.substr(0, in.packed.size() - 500), 50000);
    const auto codes = rig.run();
    EXPECT_NE(0u, codes[1]);
    EXPECT_NE(kTimedOut, codes[2]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::DecompressFailed));
    EXPECT_EQ(0, rig.events.count(event::Information, msg::UnpackageCompleted));
    const auto statuses = rig.job.statuses();
    EXPECT_NE(statuses.end(), std::find(statuses.begin(), statuses.end(), qvdlm::status::GeneralError));
    EXPECT_LT(rig.sink->bytes.size(), in.plain.size());
}

TEST(LzmaPipeline, DamagedStreamFailsWithoutHanging)
{
    const lzma2test::Input& in = lzma2test::input("dict1m");
    ASSERT_GT(in.packed.size(), 1000u);
    for (size_t at : {size_t{1}, size_t{2}, in.packed.size() / 3, in.packed.size() / 2}) {
        std::string damaged = in.packed;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x5A);
        LzmaRig rig(damaged, 50000);
        const auto codes = rig.run();
        for (uint32_t code : codes)
            EXPECT_NE(kTimedOut, code) << at;
        // Either the decoder notices, or (rarely) the damage decodes to other bytes; never both fine.
        const bool failed = rig.events.count(event::Error, msg::DecompressFailed) == 1;
        EXPECT_TRUE(failed || rig.sink->bytes != in.plain) << at;
        if (failed) {
            EXPECT_EQ(0, rig.events.count(event::Information, msg::UnpackageCompleted)) << at;
        }
    }
}

TEST(LzmaPipeline, BadPropertyByteFailsTheFirstWrite)
{
    const lzma2test::Input& in = lzma2test::input("tiny");
    ASSERT_FALSE(in.packed.empty());
    std::string bad = in.packed;
    bad[0] = static_cast<char>(41);
    LzmaRig rig(bad, 50000);
    const auto codes = rig.run();
    EXPECT_NE(0u, codes[1]);
    EXPECT_EQ(1, rig.events.count(event::Error, msg::DecompressFailed));
    bool writeLine = false;
    for (const auto& e : rig.events.events())
        writeLine |= e.text.rfind(L"readerWriterStreamThread: writeBytes failed. nBytesWritten = ", 0) == 0;
    EXPECT_TRUE(writeLine);
    EXPECT_TRUE(rig.sink->bytes.empty());
}
