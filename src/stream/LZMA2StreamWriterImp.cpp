#include "stream/LZMA2StreamWriterImp.h"

#include <windows.h>

#include <cstddef>
#include <cstring>

// Checkpoints copy the SDK's decoder structure raw, so they are only meaningful between builds
// sharing its layout; the record carries the size and the checks below use the SDK's own
// limits. Moving to another SDK version means checking these again and raising kStateVersion.
static_assert(sizeof(CLzma2Dec) == 144, "LZMA SDK decoder layout differs from the checkpointed one");
static_assert(sizeof(CLzmaProb) == 2, "probability entries are checkpointed as 16-bit values");
static_assert(alignof(LZMA2StreamWriterImp::StateHeader) <= 8 && sizeof(LZMA2StreamWriterImp::StateHeader) == 16);

// The decoder's memory comes from the process heap through an allocator record of our own, which
// also lets a restore allocate the table and dictionary that LzmaDec_Free later releases.
extern "C" {
static void* lzmaHeapAlloc(ISzAllocPtr, size_t size)
{
    return ::HeapAlloc(::GetProcessHeap(), 0, size != 0 ? size : 1);
}

static void lzmaHeapFree(ISzAllocPtr, void* address)
{
    if (address)
        ::HeapFree(::GetProcessHeap(), 0, address);
}
}

namespace {

const ISzAlloc kHeapAllocator = {lzmaHeapAlloc, lzmaHeapFree};

// LZMA2 allocates its probabilities for lc + lp = 4: 1984 fixed entries and 0x300 << 4 literal ones.
constexpr uint32_t kLzma2LcLpMax = 4;
constexpr uint32_t kLzma2ProbCount = 1984 + (0x300u << kLzma2LcLpMax);
constexpr unsigned kLzma2StateCount = 10; // control .. error in the SDK's chunk parser
constexpr UInt32 kLzmaStateCount = 12;    // states of the LZMA symbol decoder
constexpr Byte kLzmaPbMax = 4;
constexpr uintptr_t kProbsTableOffset = 1664; // the SDK's second table pointer, in entries past the first
constexpr uint32_t kLastPropertyByte = 40;
// The largest dictionary that a package may ask for: 1.5 GiB (property byte 37), as xz allows. The
// property byte alone decides an allocation of up to 4 GiB, so a larger one is refused before it is made.
constexpr uint64_t kMaxDictionaryBytes = 3ull << 29;

uint64_t dictionaryForProperty(uint32_t p)
{
    return p == kLastPropertyByte ? 0xFFFFFFFFull : (uint64_t(2 | (p & 1)) << (p / 2 + 11));
}

// Stands in for the input when none is left, so that the decoder never sees a null pointer.
const uint8_t kNoInput = 0;

} // namespace

LZMA2StreamWriterImp::LZMA2StreamWriterImp() noexcept : decoder_{}, reader_(*this) {}

LZMA2StreamWriterImp::~LZMA2StreamWriterImp() { freeDecoder(); }

void LZMA2StreamWriterImp::freeDecoder()
{
    LzmaDec_Free(&decoder_.decoder, &kHeapAllocator);
}

void LZMA2StreamWriterImp::close()
{
    freeDecoder();
    initialised_ = false;
    decoderStatus_ = LZMA_STATUS_NOT_SPECIFIED;
    inputStart_ = inputNext_ = nullptr;
    inputLeft_ = 0;
}

int64_t LZMA2StreamWriterImp::writeBytes(const uint8_t* data, uint32_t count)
{
    if (failure_ != SZ_OK) {
        lastStatus_ = failure_;
        return -1;
    }
    if (data == nullptr && count != 0) {
        lastStatus_ = SZ_ERROR_PARAM;
        return -1;
    }
    if (!initialised_ && count != 0) {
        propertyByte_ = data[0];
        SRes result = SZ_ERROR_UNSUPPORTED;
        if (propertyByte_ <= kLastPropertyByte && dictionaryForProperty(propertyByte_) <= kMaxDictionaryBytes)
            result = Lzma2Dec_Allocate(&decoder_, propertyByte_, &kHeapAllocator);
        if (result == SZ_OK)
            Lzma2Dec_Init(&decoder_);
        lastStatus_ = static_cast<uint32_t>(result);
        ++data;
        --count;
        initialised_ = result == SZ_OK;
        if (!initialised_) {
            freeDecoder();
            failure_ = static_cast<uint32_t>(result);
            inputStart_ = inputNext_ = nullptr;
            inputLeft_ = 0;
            return -1;
        }
    }
    inputStart_ = inputNext_ = data;
    inputLeft_ = count;
    decoderStatus_ = LZMA_STATUS_NOT_SPECIFIED;
    return 0;
}

uint32_t LZMA2StreamWriterImp::decode(uint8_t* buffer, uint32_t capacity, uint32_t* result)
{
    *result = SZ_OK;
    if (failure_ != SZ_OK) {
        *result = lastStatus_ = failure_;
        return 0;
    }
    if (!initialised_ || decoderStatus_ == LZMA_STATUS_NEEDS_MORE_INPUT)
        return 0;
    if (buffer == nullptr)
        capacity = 0;

    uint8_t none = 0;
    SizeT produced = capacity;
    SizeT taken = static_cast<SizeT>(inputLeft_);
    ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
    const SRes res = Lzma2Dec_DecodeToBuf(&decoder_, buffer ? buffer : &none, &produced,
                                          inputLeft_ > 0 ? inputNext_ : &kNoInput, &taken, LZMA_FINISH_ANY,
                                          &status);
    decoderStatus_ = static_cast<uint32_t>(status);
    lastStatus_ = static_cast<uint32_t>(res);
    *result = lastStatus_;
    if (inputLeft_ > 0) {
        inputNext_ += taken;
        inputLeft_ -= static_cast<int64_t>(taken);
    }
    if (res != SZ_OK)
        failure_ = static_cast<uint32_t>(res);
    return static_cast<uint32_t>(produced);
}

bool LZMA2StreamWriterImp::endOfInput()
{
    if (failure_ != SZ_OK) {
        lastStatus_ = failure_;
        return false;
    }
    if (initialised_) {
        // Asking for nothing only reports where the decoder stands.
        uint8_t none = 0;
        SizeT produced = 0;
        SizeT taken = 0;
        ELzmaStatus status = LZMA_STATUS_NOT_SPECIFIED;
        const SRes res = Lzma2Dec_DecodeToBuf(&decoder_, &none, &produced, &kNoInput, &taken, LZMA_FINISH_ANY, &status);
        if (res == SZ_OK && status == LZMA_STATUS_FINISHED_WITH_MARK) {
            decoderStatus_ = status;
            return true;
        }
    }
    lastStatus_ = SZ_ERROR_INPUT_EOF;
    return false;
}

uint64_t LZMA2StreamWriterImp::saveState(StreamStateHeader* out, uint64_t* capacity)
{
    const CLzmaDec& lz = decoder_.decoder;
    const uint64_t room = capacity ? *capacity : 0;
    uint64_t size = 0;
    if (initialised_ && failure_ == SZ_OK && lz.probs && lz.dic)
        size = kStateFixedBytes + uint64_t(lz.numProbs) * sizeof(CLzmaProb) + lz.dicBufSize;
    if (size > UINT32_MAX) // not expressible in the record's size field
        size = 0;
    if (capacity)
        *capacity = size;
    if (size == 0 || out == nullptr || room < size)
        return size;

    StateHeader head{static_cast<uint32_t>(size), stateVersion_, decoderStatus_, sizeof(CLzma2Dec)};
    auto* bytes = reinterpret_cast<uint8_t*>(out);
    std::memcpy(bytes, &head, sizeof head);
    bytes += sizeof head;
    std::memcpy(bytes, &decoder_, sizeof decoder_);
    bytes += sizeof decoder_;
    std::memcpy(bytes, lz.probs, size_t(lz.numProbs) * sizeof(CLzmaProb));
    bytes += size_t(lz.numProbs) * sizeof(CLzmaProb);
    std::memcpy(bytes, lz.dic, lz.dicBufSize);
    return size;
}

bool LZMA2StreamWriterImp::decoderFitsRecord(const CLzma2Dec& saved, uint64_t recordSize) const
{
    // A record is data from disk: refuse any value the decoder would use to index its own memory
    // out of bounds, so that a damaged checkpoint fails the restore instead of the process.
    const CLzmaDec& lz = saved.decoder;
    if (!lz.probs || !lz.dic || lz.dicBufSize == 0)
        return false;
    if (recordSize != kStateFixedBytes + uint64_t(lz.numProbs) * sizeof(CLzmaProb) + lz.dicBufSize)
        return false;
    if (saved.state >= kLzma2StateCount || lz.numProbs != kLzma2ProbCount || lz.state >= kLzmaStateCount)
        return false;
    if (uint32_t(lz.prop.lc) + lz.prop.lp > kLzma2LcLpMax || lz.prop.pb > kLzmaPbMax)
        return false;
    const uintptr_t tableOffset = reinterpret_cast<uintptr_t>(lz.probs_1664) - reinterpret_cast<uintptr_t>(lz.probs);
    if (tableOffset != kProbsTableOffset * sizeof(CLzmaProb))
        return false;
    if (lz.prop.dicSize > lz.dicBufSize || lz.dicPos > lz.dicBufSize)
        return false;
    // Match distances are checked against checkDicSize, or processedPos until the dictionary has filled.
    if (lz.checkDicSize != 0 ? lz.checkDicSize != lz.prop.dicSize : lz.processedPos > lz.prop.dicSize)
        return false;
    for (const UInt32 rep : lz.reps)
        if (rep > lz.dicBufSize)
            return false;
    return lz.tempBufSize <= LZMA_REQUIRED_INPUT_MAX;
}

bool LZMA2StreamWriterImp::restoreState(const StreamStateHeader* record)
{
    if (record == nullptr || record->size < kStateFixedBytes)
        return false;
    const auto* bytes = reinterpret_cast<const uint8_t*>(record);
    StateHeader head;
    std::memcpy(&head, bytes, sizeof head);
    if (head.stateVersion != kStateVersion || head.decoderBytes != sizeof(CLzma2Dec) ||
        head.decoderStatus > LZMA_STATUS_MAYBE_FINISHED_WITHOUT_MARK)
        return false;
    CLzma2Dec saved;
    std::memcpy(&saved, bytes + sizeof head, sizeof saved);
    if (!decoderFitsRecord(saved, head.size))
        return false;

    uint32_t property = 0;
    while (property < kLastPropertyByte && dictionaryForProperty(property) != saved.decoder.prop.dicSize)
        ++property;
    if (dictionaryForProperty(property) != saved.decoder.prop.dicSize || saved.decoder.dicBufSize > kMaxDictionaryBytes)
        return false;

    const size_t probBytes = size_t(saved.decoder.numProbs) * sizeof(CLzmaProb);
    auto* probs = static_cast<CLzmaProb*>(lzmaHeapAlloc(&kHeapAllocator, probBytes));
    auto* dic = static_cast<Byte*>(lzmaHeapAlloc(&kHeapAllocator, saved.decoder.dicBufSize));
    if (!probs || !dic) {
        lzmaHeapFree(&kHeapAllocator, probs);
        lzmaHeapFree(&kHeapAllocator, dic);
        lastStatus_ = SZ_ERROR_MEM;
        return false;
    }
    const uint8_t* tables = bytes + kStateFixedBytes;
    std::memcpy(probs, tables, probBytes);
    std::memcpy(dic, tables + probBytes, saved.decoder.dicBufSize);

    // The saved pointers referred to the writing process's memory: point them at the new copies
    // and drop the input position, which belonged to that process's input buffer.
    freeDecoder();
    decoder_ = saved;
    decoder_.decoder.probs = probs;
    decoder_.decoder.probs_1664 = probs + kProbsTableOffset;
    decoder_.decoder.dic = dic;
    decoder_.decoder.buf = nullptr;

    propertyByte_ = static_cast<uint8_t>(property);
    decoderStatus_ = head.decoderStatus;
    initialised_ = true;
    failure_ = SZ_OK;
    lastStatus_ = SZ_OK;
    inputStart_ = inputNext_ = nullptr;
    inputLeft_ = 0;
    return true;
}
