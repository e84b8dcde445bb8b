// Decoding real xz output through the LZMA2 stage, fed and drained as the middle thread does.
#include "Lzma2TestInputs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

using namespace lzma2test;

namespace {

const char* const kCases[] = {"empty", "tiny", "dict64k", "dict1m", "dict3m", "dict8m", "dict64m", "stored"};

bool sameBytes(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    return std::equal(a.begin(), a.end(), b.begin());
}

std::string firstDifference(const std::string& got, const std::string& want)
{
    const auto at = std::mismatch(got.begin(), got.end(), want.begin(), want.end());
    return "sizes " + std::to_string(got.size()) + "/" + std::to_string(want.size()) + ", first difference at " +
           std::to_string(at.first - got.begin());
}

} // namespace

TEST(Lzma2Inputs, FixtureMadeEveryCase)
{
    const auto names = inputNames();
    for (const char* name : kCases)
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    // The cases span dictionaries from 64 KiB to 64 MiB.
    EXPECT_EQ(input("dict64k").dictionary, 64u << 10);
    EXPECT_EQ(input("dict64m").dictionary, 64u << 20);
}

class Lzma2RealInput : public ::testing::TestWithParam<std::tuple<const char*, uint32_t>> {};

TEST_P(Lzma2RealInput, DecodesToTheOriginalBytes)
{
    const auto [name, chunk] = GetParam();
    const Input& in = input(name);
    ASSERT_FALSE(in.packed.empty());
    LZMA2StreamWriterImp stage;
    Outcome out;
    EXPECT_TRUE(decodeAll(stage, in.packed, Drive{chunk, kLinkBufferSize}, out)) << "status " << out.status;
    EXPECT_FALSE(out.failed);
    EXPECT_EQ(out.status, 0u);
    EXPECT_EQ(stage.propertyByte(), in.property);
    EXPECT_EQ(stage.decoderStatus(), uint32_t(LZMA_STATUS_FINISHED_WITH_MARK));
    EXPECT_TRUE(sameBytes(out.output, in.plain)) << firstDifference(out.output, in.plain);
}

INSTANTIATE_TEST_SUITE_P(Chunks, Lzma2RealInput,
                         ::testing::Combine(::testing::ValuesIn(kCases),
                                            ::testing::Values(1u, 3u, 4096u, 65537u, 1u << 20, kLinkBufferSize)),
                         [](const ::testing::TestParamInfo<Lzma2RealInput::ParamType>& param) {
                             return std::string(std::get<0>(param.param)) + "_" +
                                    std::to_string(std::get<1>(param.param));
                         });

TEST(Lzma2Decode, SmallOutputSlotsGiveTheSameBytes)
{
    const struct {
        const char* name;
        uint32_t capacity;
    } runs[] = {{"tiny", 1}, {"stored", 13}, {"dict64k", 4096}, {"dict1m", 65536 + 5}};
    for (const auto& run : runs) {
        const Input& in = input(run.name);
        LZMA2StreamWriterImp stage;
        Outcome out;
        EXPECT_TRUE(decodeAll(stage, in.packed, Drive{65536, run.capacity}, out)) << run.name;
        EXPECT_TRUE(sameBytes(out.output, in.plain)) << run.name << ": " << firstDifference(out.output, in.plain);
    }
}

TEST(Lzma2Decode, ReadNeverWritesPastTheCapacity)
{
    const Input& in = input("dict64k");
    LZMA2StreamWriterImp stage;
    ASSERT_EQ(stage.writeBytes(reinterpret_cast<const uint8_t*>(in.packed.data()), 65536), 0);
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(200, 0xAB);
    EXPECT_EQ(reader->readBytes(slot.data(), 100), 100u);
    EXPECT_TRUE(std::all_of(slot.begin() + 100, slot.end(), [](uint8_t b) { return b == 0xAB; }));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(slot.data()), 100), in.plain.substr(0, 100));
}

TEST(Lzma2Decode, FirstChunkOfOneByteIsOnlyTheProperty)
{
    const Input& in = input("dict1m");
    LZMA2StreamWriterImp stage;
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(4096);

    EXPECT_EQ(stage.writeBytes(reinterpret_cast<const uint8_t*>(in.packed.data()), 1), 0);
    EXPECT_EQ(stage.lastStatus(), 0u);
    EXPECT_TRUE(stage.initialised());
    EXPECT_EQ(stage.propertyByte(), in.property);
    EXPECT_EQ(stage.inputLeft(), 0);
    EXPECT_EQ(reader->readBytes(slot.data(), 4096), 0u);
    EXPECT_EQ(reader->lastStatus(), 0u);

    Outcome out;
    feed(stage, std::string_view(in.packed).substr(1), Drive{70000, kLinkBufferSize}, out);
    EXPECT_TRUE(stage.endOfInput());
    EXPECT_TRUE(sameBytes(out.output, in.plain)) << firstDifference(out.output, in.plain);
}

TEST(Lzma2Decode, ZeroLengthWritesPassThrough)
{
    const Input& in = input("dict64k");
    LZMA2StreamWriterImp stage;
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(kLinkBufferSize);

    // An empty slot before anything else neither starts the decoder nor fails it.
    EXPECT_EQ(stage.writeBytes(reinterpret_cast<const uint8_t*>(in.packed.data()), 0), 0);
    EXPECT_FALSE(stage.initialised());
    EXPECT_EQ(reader->readBytes(slot.data(), kLinkBufferSize), 0u);
    EXPECT_EQ(reader->lastStatus(), 0u);

    std::string output;
    const std::string_view packed(in.packed);
    for (size_t at = 0; at < packed.size(); at += 30000) {
        const auto piece = packed.substr(at, 30000);
        for (const uint32_t count : {uint32_t(piece.size()), 0u}) {
            ASSERT_EQ(stage.writeBytes(reinterpret_cast<const uint8_t*>(piece.data()), count), 0);
            for (int reads = 0; reads < 1000; ++reads) {
                const uint32_t produced = reader->readBytes(slot.data(), kLinkBufferSize);
                ASSERT_EQ(reader->lastStatus(), 0u);
                output.append(reinterpret_cast<const char*>(slot.data()), produced);
                if (produced == 0)
                    break;
            }
        }
    }
    EXPECT_TRUE(stage.endOfInput());
    EXPECT_TRUE(sameBytes(output, in.plain)) << firstDifference(output, in.plain);
}

TEST(Lzma2Decode, AnyPropertyWithARoomyDictionaryDecodes)
{
    // The tiny payload fits every dictionary from 4 KiB (property 0) to 64 MiB (28).
    const Input& in = input("tiny");
    for (uint8_t property = 0; property <= 28; ++property) {
        std::string packed = in.packed;
        packed[0] = static_cast<char>(property);
        LZMA2StreamWriterImp stage;
        Outcome out;
        EXPECT_TRUE(decodeAll(stage, packed, Drive{}, out)) << int(property);
        EXPECT_EQ(stage.propertyByte(), property);
        EXPECT_TRUE(sameBytes(out.output, in.plain)) << int(property);
    }
}

TEST(Lzma2Decode, DictionaryTooSmallForTheStreamIsADataError)
{
    const Input& in = input("dict1m");
    std::string packed = in.packed;
    packed[0] = 0; // 4 KiB, while the stream refers back much further
    LZMA2StreamWriterImp stage;
    Outcome out;
    EXPECT_FALSE(decodeAll(stage, packed, Drive{}, out));
    EXPECT_TRUE(out.failed);
    EXPECT_EQ(out.status, uint32_t(SZ_ERROR_DATA));
    EXPECT_LT(out.output.size(), in.plain.size());
}

TEST(Lzma2Decode, CloseReleasesAndANewStreamStartsOver)
{
    const Input& in = input("tiny");
    LZMA2StreamWriterImp stage;
    Outcome first;
    ASSERT_TRUE(decodeAll(stage, in.packed, Drive{}, first));
    stage.close();
    EXPECT_FALSE(stage.initialised());
    uint64_t capacity = 1;
    EXPECT_EQ(stage.saveState(nullptr, &capacity), 0u);

    Outcome second;
    EXPECT_TRUE(decodeAll(stage, in.packed, Drive{7, 64}, second));
    EXPECT_TRUE(sameBytes(second.output, in.plain));
}

TEST(Lzma2Decode, ReaderSideIsTheEmbeddedDecoderOutput)
{
    LZMA2StreamWriterImp stage;
    Stream* reader = stage.readerSide();
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(stage.readerSide(), reader);
    EXPECT_NE(reader, static_cast<Stream*>(&stage));
    EXPECT_EQ(stage.unpacker(), nullptr);

    // The reader keeps no state of its own; checkpoints go through the writer side.
    StreamStateHeader header{64};
    EXPECT_FALSE(reader->restoreState(&header));
    EXPECT_FALSE(reader->restoreState(nullptr));
    uint64_t capacity = 1 << 20;
    std::vector<uint64_t> buffer(capacity / 8);
    EXPECT_EQ(reader->saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &capacity), UINT64_MAX);

    // Closing the reader side leaves the decoder alone.
    const Input& in = input("tiny");
    Outcome out;
    feed(stage, std::string_view(in.packed).substr(0, 20), Drive{}, out);
    reader->close();
    feed(stage, std::string_view(in.packed).substr(20), Drive{}, out);
    EXPECT_TRUE(stage.endOfInput());
    EXPECT_TRUE(sameBytes(out.output, in.plain));
}
