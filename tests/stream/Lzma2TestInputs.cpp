#include "Lzma2TestInputs.h"

#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

namespace lzma2test {

namespace {

// The fixture writes into the build's test-work folder, handed down as a Unix path.
std::wstring inputsFolder()
{
    std::wstring root = qvtest::env(L"QVDLM_TEST_WORK");
    if (!root.empty() && root[0] == L'/') {
        root = L"Z:" + root;
        std::replace(root.begin(), root.end(), L'/', L'\\');
    }
    return root + L"\\lzma2-inputs\\";
}

// No real stream here makes more than this from one slot; a drain that does is not ending.
constexpr uint64_t kDrainOutputBound = 64ull << 20;

} // namespace

std::vector<std::string> inputNames()
{
    std::string list;
    std::vector<std::string> names;
    if (!qvtest::readFile(inputsFolder() + L"cases.txt", list))
        return names;
    std::istringstream lines(list);
    std::string name;
    uint64_t dictionary = 0, property = 0, size = 0;
    while (lines >> name >> dictionary >> property >> size)
        names.push_back(name);
    return names;
}

Input loadInput(const std::string& name)
{
    Input in;
    std::string list;
    if (!qvtest::readFile(inputsFolder() + L"cases.txt", list)) {
        ADD_FAILURE() << "no LZMA2 test inputs: the lzma2_inputs fixture has not run";
        return in;
    }
    std::istringstream lines(list);
    std::string entry;
    uint64_t dictionary = 0, property = 0, size = 0;
    while (lines >> entry >> dictionary >> property >> size) {
        if (entry != name)
            continue;
        in.name = name;
        in.dictionary = static_cast<uint32_t>(dictionary);
        in.property = static_cast<uint32_t>(property);
        const std::wstring base = inputsFolder() + qvtest::widen(name);
        const bool read = qvtest::readFile(base + L".raw", in.plain) && qvtest::readFile(base + L".lzma2", in.packed);
        EXPECT_TRUE(read) << "cannot read the files of case " << name;
        EXPECT_EQ(in.plain.size(), size) << name;
        EXPECT_FALSE(in.packed.empty()) << name;
        return in;
    }
    ADD_FAILURE() << "no LZMA2 test input named " << name;
    return in;
}

const Input& input(const std::string& name)
{
    static std::map<std::string, Input> cache;
    auto found = cache.find(name);
    if (found == cache.end())
        found = cache.emplace(name, loadInput(name)).first;
    return found->second;
}

void feed(LZMA2StreamWriterImp& stage, std::string_view input, const Drive& drive, Outcome& outcome)
{
    if (drive.chunk == 0) {
        ADD_FAILURE() << "a drive needs a chunk size";
        return;
    }
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(drive.outputCapacity);
    const uint64_t drainBound = kDrainOutputBound / std::max<uint32_t>(drive.outputCapacity, 1) + 16;
    size_t at = 0;
    do {
        const size_t count = std::min<size_t>(drive.chunk, input.size() - at);
        ++outcome.writes;
        const int64_t taken = stage.writeBytes(reinterpret_cast<const uint8_t*>(input.data()) + at,
                                               static_cast<uint32_t>(count));
        at += count;
        if (taken < 0 || stage.lastStatus() != 0) {
            outcome.failed = true;
            outcome.status = stage.lastStatus();
            return;
        }
        for (uint64_t reads = 0;; ++reads) {
            if (reads == drainBound) {
                outcome.runaway = true;
                outcome.failed = true;
                return;
            }
            const uint32_t produced = reader->readBytes(slot.data(), drive.outputCapacity);
            if (produced > drive.outputCapacity) {
                outcome.overran = true;
                outcome.failed = true;
                return;
            }
            outcome.output.append(reinterpret_cast<const char*>(slot.data()), produced);
            if (reader->lastStatus() != 0) {
                outcome.failed = true;
                outcome.status = stage.lastStatus();
                return;
            }
            if (produced == 0)
                break;
        }
    } while (at < input.size());
    outcome.status = stage.lastStatus();
}

bool decodeAll(LZMA2StreamWriterImp& stage, std::string_view input, const Drive& drive, Outcome& outcome)
{
    feed(stage, input, drive, outcome);
    if (outcome.failed)
        return false;
    const bool whole = stage.endOfInput();
    outcome.status = stage.lastStatus();
    return whole;
}

std::string saveRecord(LZMA2StreamWriterImp& stage)
{
    uint64_t capacity = 0;
    const uint64_t size = stage.saveState(nullptr, &capacity);
    if (size == 0)
        return {};
    std::vector<uint64_t> buffer((size + 7) / 8);
    capacity = buffer.size() * 8;
    if (stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &capacity) != size)
        return {};
    return std::string(reinterpret_cast<const char*>(buffer.data()), size);
}

bool restoreRecord(LZMA2StreamWriterImp& stage, const std::string& record)
{
    // As the job does: the record read back into a fresh, suitably aligned buffer.
    std::vector<uint64_t> buffer((record.size() + 7) / 8 + 1, 0);
    std::memcpy(buffer.data(), record.data(), record.size());
    return stage.restoreState(reinterpret_cast<const StreamStateHeader*>(buffer.data()));
}

} // namespace lzma2test
