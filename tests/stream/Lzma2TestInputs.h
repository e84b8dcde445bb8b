// Inputs of the LZMA2 stage tests (made by xz before the program runs) and a driver that feeds a
// stage the way the middle pipeline thread does: write one slot, then drain until nothing comes.
#pragma once

#include "stream/LZMA2StreamWriterImp.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lzma2test {

struct Input {
    std::string name;
    uint32_t dictionary = 0;
    uint32_t property = 0;
    std::string plain;  // the payload
    std::string packed; // property byte followed by the raw LZMA2 stream
};

// Names listed by the fixture, in its order.
std::vector<std::string> inputNames();
// Loads one case; fails the calling test (and answers an empty Input) when it is missing.
Input loadInput(const std::string& name);
// Memoised loadInput for tests that read the same case many times.
const Input& input(const std::string& name);

struct Drive {
    uint32_t chunk = 0x400000;          // compressed bytes per write (a slot's fill)
    uint32_t outputCapacity = 0x400000; // size of the output slot
};

struct Outcome {
    std::string output;
    bool failed = false;       // writeBytes or readBytes reported a failure
    uint32_t status = 0;       // writer side's lastStatus when the run stopped
    bool runaway = false;      // a drain did not end within its bound
    bool overran = false;      // readBytes answered more than the capacity
    uint64_t writes = 0;
};

// Feeds input to the stage in chunks, draining after each write; stops at the first failure.
void feed(LZMA2StreamWriterImp& stage, std::string_view input, const Drive& drive, Outcome& outcome);
// feed() followed by endOfInput(); answers whether the stage saw a whole stream.
bool decodeAll(LZMA2StreamWriterImp& stage, std::string_view input, const Drive& drive, Outcome& outcome);

// A checkpoint record in its own buffer.
std::string saveRecord(LZMA2StreamWriterImp& stage);
bool restoreRecord(LZMA2StreamWriterImp& stage, const std::string& record);

} // namespace lzma2test
