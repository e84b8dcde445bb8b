#include "stream/LZMA2StreamReaderImp.h"

#include "stream/LZMA2StreamWriterImp.h"

uint32_t LZMA2StreamReaderImp::readBytes(uint8_t* buffer, uint32_t capacity)
{
    uint32_t result = 0;
    const uint32_t produced = owner_.decode(buffer, capacity, &result);
    lastStatus_ = result;
    return produced;
}
