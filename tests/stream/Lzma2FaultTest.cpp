// Bad input to the LZMA2 stage: property bytes it cannot use, streams cut short, damaged data.
// Every case must end with a clear status, never a crash, an overrun or an endless drain.
#include "Lzma2TestInputs.h"

#include <gtest/gtest.h>

#include <random>

using namespace lzma2test;

namespace {

bool isPrefixOf(const std::string& part, const std::string& whole)
{
    return part.size() <= whole.size() && whole.compare(0, part.size(), part) == 0;
}

// Once failed, the stage keeps its status and takes nothing more.
void expectStaysFailed(LZMA2StreamWriterImp& stage, uint32_t status)
{
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    uint8_t slot[64];
    EXPECT_EQ(reader->readBytes(slot, sizeof slot), 0u);
    EXPECT_EQ(reader->lastStatus(), status);
    const uint8_t more[4] = {0x16, 1, 2, 3};
    EXPECT_LT(stage.writeBytes(more, sizeof more), 0);
    EXPECT_EQ(stage.lastStatus(), status);
    EXPECT_EQ(stage.saveState(nullptr, nullptr), 0u);
    EXPECT_FALSE(stage.endOfInput());
    EXPECT_EQ(stage.lastStatus(), status);
}

} // namespace

TEST(Lzma2Fault, UnusablePropertyBytesAreRefused)
{
    const Input& in = input("tiny");
    for (const int property : {41, 42, 0x7F, 0x80, 0xFF}) {
        std::string packed = in.packed;
        packed[0] = static_cast<char>(property);
        LZMA2StreamWriterImp stage;
        EXPECT_LT(stage.writeBytes(reinterpret_cast<const uint8_t*>(packed.data()), uint32_t(packed.size())), 0);
        EXPECT_EQ(stage.lastStatus(), uint32_t(SZ_ERROR_UNSUPPORTED)) << property;
        EXPECT_FALSE(stage.initialised());
        EXPECT_EQ(stage.propertyByte(), property);
        expectStaysFailed(stage, SZ_ERROR_UNSUPPORTED);
    }
}

TEST(Lzma2Fault, StreamCutShortIsReportedAtTheEndOfInput)
{
    for (const char* name : {"dict64k", "stored", "dict64m", "tiny"}) {
        const Input& in = input(name);
        const size_t n = in.packed.size();
        for (const size_t cut : {size_t(0), size_t(1), size_t(2), size_t(6), size_t(7), n / 2, n - 2, n - 1}) {
            LZMA2StreamWriterImp stage;
            Outcome out;
            EXPECT_FALSE(decodeAll(stage, std::string_view(in.packed).substr(0, cut), Drive{30000, kLinkBufferSize}, out))
                << name << " cut " << cut;
            EXPECT_FALSE(out.failed) << name << " cut " << cut; // a valid prefix decodes without error
            EXPECT_EQ(out.status, uint32_t(SZ_ERROR_INPUT_EOF)) << name << " cut " << cut;
            EXPECT_TRUE(isPrefixOf(out.output, in.plain)) << name << " cut " << cut;
            if (cut == n - 1) { // only the end mark is missing
                EXPECT_EQ(out.output.size(), in.plain.size()) << name;
            }
        }
    }
}

TEST(Lzma2Fault, DamagedChunkHeadersAreDataErrors)
{
    const Input& in = input("dict64k");
    // Property byte, then the first chunk: control (LZMA with dictionary reset and properties),
    // unpacked and packed sizes, the properties, then the range coder whose first byte is 0.
    ASSERT_GT(in.packed.size(), 8u);
    ASSERT_GE(uint8_t(in.packed[1]), 0xE0);
    ASSERT_EQ(in.packed[7], 0);

    const struct {
        const char* why;
        size_t at;
        uint8_t value;
    } damages[] = {
        {"control byte of no kind", 1, 0x03},
        {"first chunk keeps a dictionary it never had", 1, uint8_t(0x80 | (in.packed[1] & 0x1F))},
        {"range coder does not start at zero", 7, 0x80},
        {"literal properties out of range", 6, 9 * 5 * 5},
    };
    for (const auto& damage : damages) {
        std::string packed = in.packed;
        packed[damage.at] = static_cast<char>(damage.value);
        LZMA2StreamWriterImp stage;
        Outcome out;
        EXPECT_FALSE(decodeAll(stage, packed, Drive{4096, kLinkBufferSize}, out)) << damage.why;
        EXPECT_TRUE(out.failed) << damage.why;
        EXPECT_EQ(out.status, uint32_t(SZ_ERROR_DATA)) << damage.why;
        EXPECT_EQ(static_cast<StreamReader*>(stage.readerSide())->lastStatus(), uint32_t(SZ_ERROR_DATA));
        expectStaysFailed(stage, SZ_ERROR_DATA);
    }
}

TEST(Lzma2Fault, BytesAfterTheEndMarkAreLeftUnread)
{
    const Input& in = input("tiny");
    LZMA2StreamWriterImp stage;
    Outcome out;
    EXPECT_TRUE(decodeAll(stage, in.packed + "trailing bytes", Drive{}, out));
    EXPECT_EQ(out.status, 0u);
    EXPECT_TRUE(out.output == in.plain);
}

TEST(Lzma2Fault, NothingWrittenIsNoStream)
{
    LZMA2StreamWriterImp stage;
    EXPECT_FALSE(stage.endOfInput());
    EXPECT_EQ(stage.lastStatus(), uint32_t(SZ_ERROR_INPUT_EOF));
    uint8_t slot[16];
    EXPECT_EQ(static_cast<StreamReader*>(stage.readerSide())->readBytes(slot, sizeof slot), 0u);
}

TEST(Lzma2Fault, NullInputWithACountIsRefused)
{
    LZMA2StreamWriterImp stage;
    EXPECT_LT(stage.writeBytes(nullptr, 10), 0);
    EXPECT_EQ(stage.lastStatus(), uint32_t(SZ_ERROR_PARAM));
    EXPECT_FALSE(stage.initialised());
}

TEST(Lzma2Fault, RandomCorruptionEndsCleanly)
{
    const char* const names[] = {"dict64k", "stored", "dict1m", "tiny", "dict3m"};
    const uint32_t chunks[] = {1, 7, 4096, 65536, kLinkBufferSize};
    int detected = 0;
    int runs = 0;
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const Input& in = input(names[rng() % std::size(names)]);
        std::string packed = in.packed;
        const size_t body = packed.size() - 1; // keep the property byte
        switch (seed % 4) {
        case 0: // scattered bit flips
            for (uint32_t i = 1 + rng() % 8; i > 0; --i)
                packed[1 + rng() % body] ^= static_cast<char>(1u << (rng() % 8));
            break;
        case 1: { // a stretch overwritten with noise
            const size_t at = 1 + rng() % body;
            const size_t len = std::min<size_t>(1 + rng() % 64, packed.size() - at);
            for (size_t i = 0; i < len; ++i)
                packed[at + i] = static_cast<char>(rng());
            break;
        }
        case 2: // cut short, then damaged
            packed.resize(1 + rng() % body);
            packed[packed.size() - 1 - rng() % packed.size() / 2] ^= 0x10;
            break;
        default: // a byte of the first chunk header
            packed[1 + rng() % std::min<size_t>(6, body)] ^= static_cast<char>(1 + rng() % 255);
            break;
        }
        const uint32_t chunk = chunks[rng() % std::size(chunks)];
        const uint32_t capacity = in.plain.size() < 4096 ? 1 : (rng() % 2 ? 4096 : kLinkBufferSize);

        LZMA2StreamWriterImp stage;
        Outcome out;
        const bool whole = decodeAll(stage, packed, Drive{chunk, capacity}, out);
        ++runs;
        EXPECT_FALSE(out.runaway) << "seed " << seed;
        EXPECT_FALSE(out.overran) << "seed " << seed;
        if (out.failed) {
            ++detected;
            EXPECT_TRUE(out.status == SZ_ERROR_DATA || out.status == SZ_ERROR_UNSUPPORTED) << "seed " << seed << ": " << out.status;
            expectStaysFailed(stage, out.status);
        } else if (!whole) {
            ++detected;
            EXPECT_EQ(out.status, uint32_t(SZ_ERROR_INPUT_EOF)) << "seed " << seed;
        } else {
            // LZMA2 has no checksum, but its chunk sizes still hold the length.
            EXPECT_EQ(out.output.size(), in.plain.size()) << "seed " << seed;
        }
    }
    RecordProperty("detected", detected);
    EXPECT_GT(detected, runs / 2);
}
