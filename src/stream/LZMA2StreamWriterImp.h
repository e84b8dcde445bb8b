// Middle stage of compressed-package pipelines: decodes a raw LZMA2 stream, preceded by its one
// dictionary property byte, with the LZMA SDK. Compressed bytes come in through writeBytes; the
// embedded reader side decodes them straight into the caller's buffer.
#pragma once

#include "stream/LZMA2StreamReaderImp.h"
#include "stream/Stream.h"

#include <Lzma2Dec.h>

#include <cstdint>

class LZMA2StreamWriterImp final : public StreamWriter {
public:
    static constexpr uint32_t kStateVersion = 1;

    // Checkpoint record: this header, the SDK's decoder structure byte for byte, its probability
    // table, then the whole dictionary buffer. The structure's size is part of the record so that
    // a record from a build with another SDK layout is refused rather than misread.
    struct StateHeader {
        uint32_t size;          // whole record in bytes
        uint32_t stateVersion;  // kStateVersion
        uint32_t decoderStatus; // the SDK's last decoding status
        uint32_t decoderBytes;  // sizeof(CLzma2Dec) of the writing build
    };
    static constexpr uint64_t kStateFixedBytes = sizeof(StateHeader) + sizeof(CLzma2Dec);

    LZMA2StreamWriterImp() noexcept;
    ~LZMA2StreamWriterImp() override;

    void close() override;
    bool restoreState(const StreamStateHeader* record) override;
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override;
    Stream* readerSide() override { return &reader_; }
    // Hands in compressed bytes; the first byte ever written is the dictionary property. Returns 0,
    // or -1 once the stage has failed; lastStatus holds the SDK's result.
    int64_t writeBytes(const uint8_t* data, uint32_t count) override;
    // False (lastStatus SZ_ERROR_INPUT_EOF) unless the decoder has seen the stream's end mark.
    bool endOfInput() override;

    bool initialised() const { return initialised_; }
    uint8_t propertyByte() const { return propertyByte_; }
    uint32_t decoderStatus() const { return decoderStatus_; }
    // Compressed bytes of the last write that the decoder has not taken yet.
    int64_t inputLeft() const { return inputLeft_; }

private:
    friend class LZMA2StreamReaderImp;

    // The reader side's decoding step; result receives the SDK's code for this call.
    uint32_t decode(uint8_t* buffer, uint32_t capacity, uint32_t* result);
    void freeDecoder();
    bool decoderFitsRecord(const CLzma2Dec& saved, uint64_t recordSize) const;

    uint32_t stateVersion_ = kStateVersion;
    CLzma2Dec decoder_;
    uint8_t propertyByte_ = 0;
    bool initialised_ = false;
    uint32_t decoderStatus_ = LZMA_STATUS_NOT_SPECIFIED;
    uint32_t failure_ = SZ_OK; // a failed allocation or corrupt data: the stage takes no more input
    LZMA2StreamReaderImp reader_;
    // Point into the middle thread's input slot, which stays filled until the output is drained.
    const uint8_t* inputStart_ = nullptr;
    const uint8_t* inputNext_ = nullptr;
    int64_t inputLeft_ = 0;
};
