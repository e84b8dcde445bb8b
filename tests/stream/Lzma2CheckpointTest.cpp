// Checkpoint records of the LZMA2 stage: a stage restored from one continues the stream exactly,
// and records that are short, foreign or damaged are refused.
#include "Lzma2TestInputs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using namespace lzma2test;

namespace {

constexpr size_t kDecoderAt = sizeof(LZMA2StreamWriterImp::StateHeader);
constexpr uint64_t kProbBytes = (1984 + (0x300 << 4)) * 2;

LZMA2StreamWriterImp::StateHeader headerOf(const std::string& record)
{
    LZMA2StreamWriterImp::StateHeader head{};
    std::memcpy(&head, record.data(), sizeof head);
    return head;
}

CLzma2Dec decoderOf(const std::string& record)
{
    CLzma2Dec decoder;
    std::memcpy(&decoder, record.data() + kDecoderAt, sizeof decoder);
    return decoder;
}

void putDecoder(std::string& record, const CLzma2Dec& decoder)
{
    std::memcpy(record.data() + kDecoderAt, &decoder, sizeof decoder);
}

void putHeader(std::string& record, const LZMA2StreamWriterImp::StateHeader& head)
{
    std::memcpy(record.data(), &head, sizeof head);
}

// The decoder structure with the fields that name memory of one process cleared.
CLzma2Dec withoutPointers(CLzma2Dec decoder)
{
    decoder.decoder.probs = nullptr;
    decoder.decoder.probs_1664 = nullptr;
    decoder.decoder.dic = nullptr;
    decoder.decoder.buf = nullptr;
    return decoder;
}

// Decodes in.packed[0, cut) into a stage and takes a checkpoint there.
std::string checkpointAt(const Input& in, size_t cut, uint32_t chunk, std::string& outputSoFar)
{
    LZMA2StreamWriterImp stage;
    Outcome out;
    feed(stage, std::string_view(in.packed).substr(0, cut), Drive{chunk, kLinkBufferSize}, out);
    EXPECT_FALSE(out.failed) << in.name << " cut " << cut;
    outputSoFar = out.output;
    return saveRecord(stage);
}

// Restores the record into a fresh stage and decodes the rest of the stream after cut.
bool continueFrom(const Input& in, const std::string& record, size_t cut, uint32_t chunk, std::string& output)
{
    LZMA2StreamWriterImp stage;
    if (!restoreRecord(stage, record))
        return false;
    Outcome out;
    const bool whole = decodeAll(stage, std::string_view(in.packed).substr(cut), Drive{chunk, kLinkBufferSize}, out);
    output += out.output;
    return whole;
}

} // namespace

TEST(Lzma2Checkpoint, NothingToSaveBeforeTheDecoderExists)
{
    LZMA2StreamWriterImp stage;
    uint64_t capacity = 12345;
    EXPECT_EQ(stage.saveState(nullptr, &capacity), 0u);
    EXPECT_EQ(capacity, 0u);

    const uint8_t none = 0;
    EXPECT_EQ(stage.writeBytes(&none, 0), 0);
    EXPECT_EQ(stage.saveState(nullptr, nullptr), 0u);

    LZMA2StreamWriterImp refused;
    const uint8_t bad = 0xFF;
    EXPECT_LT(refused.writeBytes(&bad, 1), 0);
    capacity = 99;
    EXPECT_EQ(refused.saveState(nullptr, &capacity), 0u);
    EXPECT_EQ(capacity, 0u);
}

TEST(Lzma2Checkpoint, RecordHoldsHeaderDecoderTableAndDictionary)
{
    const struct {
        const char* name;
        uint64_t dictionaryBuffer;
    } cases[] = {{"dict64k", 64 << 10}, {"dict1m", 1 << 20}, {"dict3m", 3 << 20}, {"dict64m", 64 << 20}};
    for (const auto& c : cases) {
        const Input& in = input(c.name);
        std::string soFar;
        const std::string record = checkpointAt(in, in.packed.size() / 2, 65536, soFar);
        ASSERT_EQ(record.size(), LZMA2StreamWriterImp::kStateFixedBytes + kProbBytes + c.dictionaryBuffer) << c.name;
        EXPECT_EQ(LZMA2StreamWriterImp::kStateFixedBytes, 16u + 144u);
        const auto head = headerOf(record);
        EXPECT_EQ(head.size, record.size());
        EXPECT_EQ(head.stateVersion, 1u);
        EXPECT_EQ(head.decoderStatus, uint32_t(LZMA_STATUS_NEEDS_MORE_INPUT)) << c.name;
        EXPECT_EQ(head.decoderBytes, 144u);
        EXPECT_EQ(decoderOf(record).decoder.dicBufSize, c.dictionaryBuffer);
    }
}

TEST(Lzma2Checkpoint, SaveWritesOnlyIntoARoomyBuffer)
{
    const Input& in = input("dict64k");
    LZMA2StreamWriterImp stage;
    Outcome out;
    feed(stage, std::string_view(in.packed).substr(0, 1000), Drive{}, out);
    const uint64_t need = LZMA2StreamWriterImp::kStateFixedBytes + kProbBytes + (64 << 10);

    uint64_t capacity = 0;
    EXPECT_EQ(stage.saveState(nullptr, &capacity), need);
    EXPECT_EQ(capacity, need);

    std::vector<uint64_t> buffer(need / 8 + 1, 0xABABABABABABABABull);
    capacity = need - 1;
    EXPECT_EQ(stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &capacity), need);
    EXPECT_EQ(capacity, need);
    EXPECT_EQ(buffer[0], 0xABABABABABABABABull);
    EXPECT_EQ(stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), nullptr), need);
    EXPECT_EQ(buffer[0], 0xABABABABABABABABull);

    capacity = need;
    EXPECT_EQ(stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &capacity), need);
    EXPECT_EQ(reinterpret_cast<StreamStateHeader*>(buffer.data())->size, need);
    EXPECT_EQ(buffer[need / 8], 0xABABABABABABABABull); // nothing past the record
}

class Lzma2CheckpointResume : public ::testing::TestWithParam<const char*> {};

TEST_P(Lzma2CheckpointResume, FreshStageContinuesByteIdentical)
{
    const Input& in = input(GetParam());
    ASSERT_FALSE(in.packed.empty());
    // Cuts just after the property byte, inside the first chunk header, and mid-stream.
    for (const size_t cut : {size_t(1), size_t(4), in.packed.size() * 5 / 9}) {
        if (cut >= in.packed.size())
            continue;
        std::string output;
        const std::string record = checkpointAt(in, cut, 40000, output);
        ASSERT_FALSE(record.empty()) << in.name << " cut " << cut;
        EXPECT_TRUE(continueFrom(in, record, cut, 50000, output)) << in.name << " cut " << cut;
        EXPECT_EQ(output.size(), in.plain.size()) << in.name << " cut " << cut;
        EXPECT_TRUE(output == in.plain) << in.name << " cut " << cut;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Lzma2CheckpointResume,
                         ::testing::Values("empty", "tiny", "dict64k", "dict1m", "dict3m", "dict8m", "dict64m",
                                           "stored"));

TEST(Lzma2Checkpoint, EveryChunkBoundaryIsAResumePoint)
{
    for (const char* name : {"dict64k", "stored"}) {
        const Input& in = input(name);
        const uint32_t chunk = 23456;
        LZMA2StreamWriterImp stage;
        Outcome out;
        for (size_t cut = 0; cut < in.packed.size(); cut += chunk) {
            feed(stage, std::string_view(in.packed).substr(cut, chunk), Drive{}, out);
            ASSERT_FALSE(out.failed);
            const std::string record = saveRecord(stage);
            ASSERT_FALSE(record.empty());
            std::string output = out.output;
            ASSERT_TRUE(continueFrom(in, record, cut + chunk > in.packed.size() ? in.packed.size() : cut + chunk,
                                     70000, output))
                << name << " after " << cut + chunk;
            ASSERT_TRUE(output == in.plain) << name << " after " << cut + chunk;
        }
        // Saving did not disturb the stage that went on decoding.
        EXPECT_TRUE(stage.endOfInput());
        EXPECT_TRUE(out.output == in.plain);
    }
}

TEST(Lzma2Checkpoint, RestoreReadsNoSecondPropertyByte)
{
    const Input& in = input("dict1m");
    std::string output;
    const std::string record = checkpointAt(in, 1, 1, output);
    LZMA2StreamWriterImp stage;
    ASSERT_TRUE(restoreRecord(stage, record));
    EXPECT_TRUE(stage.initialised());
    EXPECT_EQ(stage.propertyByte(), in.property);
    // The next byte is the first chunk's control byte, decoded as data.
    Outcome out;
    feed(stage, std::string_view(in.packed).substr(1, 1), Drive{}, out);
    EXPECT_FALSE(out.failed);
    EXPECT_EQ(stage.propertyByte(), in.property);
    feed(stage, std::string_view(in.packed).substr(2), Drive{}, out);
    EXPECT_TRUE(stage.endOfInput());
    EXPECT_TRUE(out.output == in.plain);
}

TEST(Lzma2Checkpoint, RestoredStageSavesTheSameRecord)
{
    const Input& in = input("dict8m");
    std::string output;
    const std::string first = checkpointAt(in, in.packed.size() / 3, 65536, output);
    LZMA2StreamWriterImp stage;
    ASSERT_TRUE(restoreRecord(stage, first));
    const std::string second = saveRecord(stage);
    ASSERT_EQ(second.size(), first.size());
    EXPECT_EQ(0, std::memcmp(first.data(), second.data(), kDecoderAt));
    const CLzma2Dec a = withoutPointers(decoderOf(first));
    const CLzma2Dec b = withoutPointers(decoderOf(second));
    EXPECT_EQ(0, std::memcmp(&a, &b, sizeof a));
    EXPECT_TRUE(first.compare(LZMA2StreamWriterImp::kStateFixedBytes, std::string::npos, second,
                              LZMA2StreamWriterImp::kStateFixedBytes) == 0);
    // The restored structure names this process's memory, not the saved addresses.
    const CLzma2Dec mine = decoderOf(second);
    EXPECT_EQ(mine.decoder.buf, nullptr);
    EXPECT_EQ(mine.decoder.probs_1664, mine.decoder.probs + 1664);
}

TEST(Lzma2Checkpoint, RestoreReplacesADecoderInUse)
{
    const Input& small = input("dict1m");
    std::string output;
    const size_t cut = small.packed.size() / 2;
    const std::string record = checkpointAt(small, cut, 65536, output);

    // A stage already decoding another stream with a larger dictionary takes the record over.
    const Input& other = input("dict8m");
    LZMA2StreamWriterImp stage;
    Outcome busy;
    feed(stage, std::string_view(other.packed).substr(0, 100000), Drive{}, busy);
    ASSERT_TRUE(restoreRecord(stage, record));
    Outcome rest;
    EXPECT_TRUE(decodeAll(stage, std::string_view(small.packed).substr(cut), Drive{}, rest));
    EXPECT_TRUE(output + rest.output == small.plain);
}

TEST(Lzma2Checkpoint, ForeignShortOrDamagedRecordsAreRefused)
{
    const Input& in = input("dict64k");
    std::string output;
    const size_t cut = in.packed.size() / 2;
    const std::string good = checkpointAt(in, cut, 65536, output);
    ASSERT_FALSE(good.empty());

    LZMA2StreamWriterImp stage;
    EXPECT_FALSE(stage.restoreState(nullptr));
    StreamStateHeader tiny{4};
    EXPECT_FALSE(stage.restoreState(&tiny));

    std::vector<std::pair<const char*, std::string>> bad;
    auto withHeader = [&](const char* why, auto change) {
        std::string r = good;
        auto head = headerOf(r);
        change(head);
        putHeader(r, head);
        bad.emplace_back(why, r);
    };
    auto withDecoder = [&](const char* why, auto change) {
        std::string r = good;
        auto d = decoderOf(r);
        change(d);
        putDecoder(r, d);
        bad.emplace_back(why, r);
    };
    withHeader("shorter than the fixed part", [](auto& h) { h.size = 100; });
    withHeader("size one short", [](auto& h) { --h.size; });
    withHeader("size one long", [](auto& h) { ++h.size; });
    withHeader("another version", [](auto& h) { h.stateVersion = 2; });
    withHeader("another SDK layout", [](auto& h) { h.decoderBytes = 168; });
    withHeader("unknown decoder status", [](auto& h) { h.decoderStatus = 5; });
    withDecoder("no probability table", [](CLzma2Dec& d) { d.decoder.probs = nullptr; });
    withDecoder("no dictionary", [](CLzma2Dec& d) { d.decoder.dic = nullptr; });
    withDecoder("table of another size", [](CLzma2Dec& d) { d.decoder.numProbs += 1; });
    withDecoder("dictionary of another size", [](CLzma2Dec& d) { d.decoder.dicBufSize -= 4096; });
    withDecoder("position past the dictionary", [](CLzma2Dec& d) { d.decoder.dicPos = d.decoder.dicBufSize + 1; });
    withDecoder("distance past the dictionary", [](CLzma2Dec& d) { d.decoder.reps[2] = UInt32(d.decoder.dicBufSize + 1); });
    withDecoder("symbol state out of range", [](CLzma2Dec& d) { d.decoder.state = 12; });
    withDecoder("chunk state out of range", [](CLzma2Dec& d) { d.state = 10; });
    withDecoder("second table pointer moved", [](CLzma2Dec& d) { d.decoder.probs_1664 = d.decoder.probs + 1; });
    withDecoder("literal context too wide", [](CLzma2Dec& d) { d.decoder.prop.lc = 4; d.decoder.prop.lp = 1; });
    withDecoder("held input too long", [](CLzma2Dec& d) { d.decoder.tempBufSize = LZMA_REQUIRED_INPUT_MAX + 1; });
    withDecoder("dictionary size of no property", [](CLzma2Dec& d) {
        d.decoder.prop.dicSize = 60000;
        if (d.decoder.checkDicSize != 0)
            d.decoder.checkDicSize = 60000;
    });
    withDecoder("checked size unlike the dictionary", [](CLzma2Dec& d) { d.decoder.checkDicSize = 1000; });
    withDecoder("unchecked position past the dictionary", [](CLzma2Dec& d) {
        d.decoder.checkDicSize = 0;
        d.decoder.processedPos = d.decoder.prop.dicSize + 1;
    });

    for (const auto& [why, record] : bad) {
        EXPECT_FALSE(restoreRecord(stage, record)) << why;
        EXPECT_FALSE(stage.initialised()) << why;
    }
    // A refused record leaves the stage as it was: it still decodes a stream from the start.
    Outcome out;
    EXPECT_TRUE(decodeAll(stage, in.packed, Drive{}, out));
    EXPECT_TRUE(out.output == in.plain);

    // And the untouched record still restores.
    std::string rest = output;
    EXPECT_TRUE(continueFrom(in, good, cut, 65536, rest));
    EXPECT_TRUE(rest == in.plain);
}

TEST(Lzma2Checkpoint, RandomlyDamagedRecordsNeverCrashTheDecoder)
{
    const Input& in = input("dict64k");
    std::string ignored;
    const size_t cut = in.packed.size() / 3;
    const std::string good = checkpointAt(in, cut, 65536, ignored);
    ASSERT_FALSE(good.empty());
    int accepted = 0;
    for (const uint32_t seed : {11u, 12u, 13u, 14u, 15u, 16u, 17u, 18u, 19u, 20u, 21u, 22u, 23u, 24u, 25u, 26u}) {
        std::mt19937 rng(seed);
        std::string record = good;
        // Mostly the header and decoder structure; now and then the probability table.
        const size_t span = seed % 4 == 0 ? LZMA2StreamWriterImp::kStateFixedBytes + kProbBytes
                                          : LZMA2StreamWriterImp::kStateFixedBytes;
        const int flips = 1 + int(rng() % 4);
        for (int i = 0; i < flips; ++i)
            record[rng() % span] ^= static_cast<char>(1 + rng() % 255);
        LZMA2StreamWriterImp stage;
        if (!restoreRecord(stage, record))
            continue;
        ++accepted;
        Outcome out;
        decodeAll(stage, std::string_view(in.packed).substr(cut), Drive{4096, 65536}, out);
        EXPECT_FALSE(out.runaway) << "seed " << seed;
        EXPECT_FALSE(out.overran) << "seed " << seed;
        if (out.failed) {
            EXPECT_TRUE(out.status == SZ_ERROR_DATA || out.status == SZ_ERROR_FAIL) << "seed " << seed << ": " << out.status;
        }
    }
    RecordProperty("accepted", accepted);
}
