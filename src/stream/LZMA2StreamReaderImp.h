// Output side of the LZMA2 decoding stage: hands out what the decoder makes of the input last
// written to its writer side. It holds no state of its own.
#pragma once

#include "stream/Stream.h"

#include <cstdint>

class LZMA2StreamWriterImp;

class LZMA2StreamReaderImp final : public StreamReader {
public:
    explicit LZMA2StreamReaderImp(LZMA2StreamWriterImp& owner) noexcept : owner_(owner) {}

    void close() override {}
    // The writer side saves and restores the decoder; this side has nothing to keep.
    bool restoreState(const StreamStateHeader*) override { return false; }
    uint64_t saveState(StreamStateHeader*, uint64_t*) override { return UINT64_MAX; }

    // Decodes into buffer up to capacity; 0 when the decoder needs more input or the stream has
    // ended. A decoding error sets lastStatus (here and on the writer side) to the SDK's code.
    uint32_t readBytes(uint8_t* buffer, uint32_t capacity) override;

private:
    LZMA2StreamWriterImp& owner_;
};
