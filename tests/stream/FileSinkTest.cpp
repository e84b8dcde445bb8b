// The plain-file sink: creation, writes, its checkpoint record and a byte-exact continuation.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <memory>
#include <string>

#include "stream/GenericFileStreamWriterImp.h"
#include "stream/PathUtil.h"
#include "support/TestSupport.h"

namespace {

int64_t write(GenericFileStreamWriterImp& sink, const std::string& bytes)
{
    return sink.writeBytes(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()));
}

std::string contents(const std::wstring& path)
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(path, bytes));
    return bytes;
}

FileSinkState saved(GenericFileStreamWriterImp& sink)
{
    FileSinkState state{};
    uint64_t capacity = sizeof(state);
    EXPECT_EQ(16u, sink.saveState(reinterpret_cast<StreamStateHeader*>(&state), &capacity));
    return state;
}

} // namespace

TEST(FileSink, WritesEveryByteIntoANewFile)
{
    qvtest::ScratchDir dir(L"sink-new");
    const std::wstring path = dir / L"out.bin";
    const std::string a = qvtest::patternBytes(5000, 1);
    const std::string b = qvtest::patternBytes(123, 2);
    {
        GenericFileStreamWriterImp sink(path.c_str());
        ASSERT_TRUE(sink.isOpen());
        EXPECT_EQ(0u, sink.lastStatus());
        EXPECT_EQ(5000, write(sink, a));
        EXPECT_EQ(0, sink.writeBytes(reinterpret_cast<const uint8_t*>(a.data()), 0));
        EXPECT_EQ(123, write(sink, b));
        EXPECT_EQ(5123, sink.offset());
    }
    EXPECT_EQ(a + b, contents(path));
}

TEST(FileSink, ReadOnlyFileIsClearedAndTruncated)
{
    qvtest::ScratchDir dir(L"sink-readonly");
    const std::wstring path = dir / L"locked.bin";
    ASSERT_TRUE(qvtest::writeFile(path, "old contents that must go"));
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    {
        GenericFileStreamWriterImp sink(path.c_str());
        ASSERT_TRUE(sink.isOpen());
        EXPECT_EQ(3, write(sink, "new"));
    }
    EXPECT_EQ(0u, GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ("new", contents(path));
}

TEST(FileSink, FileThatCannotBeOpenedTakesNothing)
{
    qvtest::ScratchDir dir(L"sink-noopen");
    const std::wstring path = dir / L"missing-folder\\out.bin";
    GenericFileStreamWriterImp sink(path.c_str());
    EXPECT_FALSE(sink.isOpen());
    EXPECT_NE(0u, sink.lastStatus());
    EXPECT_EQ(0, write(sink, "data"));
    EXPECT_FALSE(qvtest::fileExists(path));
}

TEST(FileSink, LongPathFileIsWritten)
{
    qvtest::ScratchDir dir(L"sink-long");
    std::wstring path = dir.path();
    while (path.size() < 300)
        path += L"\\" + std::wstring(40, L'f');
    path += L"\\out.bin";
    ASSERT_TRUE(qv::toLongPath(path));
    ASSERT_EQ(0u, path.rfind(L"\\\\?\\", 0));
    ASSERT_TRUE(qv::ensureParentFolderLong(path));
    {
        GenericFileStreamWriterImp sink(path.c_str());
        ASSERT_TRUE(sink.isOpen());
        EXPECT_EQ(4, write(sink, "long"));
    }
    EXPECT_EQ(4u, qv::fileSize(path));
}

TEST(FileSink, OverlongPathIsCutWithoutOverrun)
{
    const std::wstring huge(40000, L'x');
    GenericFileStreamWriterImp sink(huge.c_str());
    EXPECT_EQ(GenericFileStreamWriterImp::kPathCapacity - 1, std::wcslen(sink.path()));
    EXPECT_FALSE(sink.isOpen());
}

TEST(FileSink, SaveStateAnswersItsSizeAndWritesOnlyWhenItFits)
{
    qvtest::ScratchDir dir(L"sink-save");
    GenericFileStreamWriterImp sink((dir / L"s.bin").c_str());
    write(sink, std::string(77, 'a'));
    EXPECT_EQ(16u, sink.saveState(nullptr, nullptr));
    unsigned char record[16];
    std::memset(record, 0xEE, sizeof(record));
    uint64_t small = 15;
    EXPECT_EQ(16u, sink.saveState(reinterpret_cast<StreamStateHeader*>(record), &small));
    EXPECT_EQ(0xEE, record[0]);
    const FileSinkState state = saved(sink);
    EXPECT_EQ(16u, state.size);
    EXPECT_EQ(77, state.offset);
}

TEST(FileSink, RestoreRefusesNullAndShortRecords)
{
    qvtest::ScratchDir dir(L"sink-refuse");
    GenericFileStreamWriterImp sink((dir / L"r.bin").c_str());
    EXPECT_FALSE(sink.restoreState(nullptr));
    FileSinkState shortRecord{15, 0, 0};
    EXPECT_FALSE(sink.restoreState(reinterpret_cast<StreamStateHeader*>(&shortRecord)));
    FileSinkState negative{16, 0, -5};
    EXPECT_FALSE(sink.restoreState(reinterpret_cast<StreamStateHeader*>(&negative)));
    EXPECT_EQ(0, sink.offset());
}

TEST(FileSink, RestoredSinkContinuesExactlyAtTheCheckpoint)
{
    qvtest::ScratchDir dir(L"sink-resume");
    const std::wstring path = dir / L"resume.bin";
    const std::string before = qvtest::patternBytes(300000, 11);
    const std::string lost = qvtest::patternBytes(4096, 12);  // written after the checkpoint
    const std::string after = qvtest::patternBytes(70000, 13); // what the resumed run delivers
    FileSinkState checkpoint{};
    {
        GenericFileStreamWriterImp sink(path.c_str());
        ASSERT_EQ(static_cast<int64_t>(before.size()), write(sink, before));
        checkpoint = saved(sink);
        // The saved length is on disk once the checkpoint is taken, even if the process dies now.
        EXPECT_EQ(before.size(), qv::fileSize(path));
        write(sink, lost);
    }
    EXPECT_EQ(before + lost, contents(path));

    GenericFileStreamWriterImp resumed(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    // Creation for a resumption keeps the file until the restore says where it continues.
    EXPECT_EQ(before.size() + lost.size(), qv::fileSize(path));
    ASSERT_TRUE(resumed.restoreState(reinterpret_cast<StreamStateHeader*>(&checkpoint)));
    EXPECT_EQ(checkpoint.offset, resumed.offset());
    EXPECT_EQ(static_cast<int64_t>(after.size()), write(resumed, after));
    EXPECT_EQ(checkpoint.offset + static_cast<int64_t>(after.size()), saved(resumed).offset);
    resumed.close();
    EXPECT_EQ(before + after, contents(path));
}

TEST(FileSink, RestoreToZeroStartsTheFileAnew)
{
    qvtest::ScratchDir dir(L"sink-zero");
    const std::wstring path = dir / L"zero.bin";
    ASSERT_TRUE(qvtest::writeFile(path, "stale"));
    GenericFileStreamWriterImp sink(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    FileSinkState zero{16, 0, 0};
    ASSERT_TRUE(sink.restoreState(reinterpret_cast<StreamStateHeader*>(&zero)));
    write(sink, "fresh");
    sink.close();
    EXPECT_EQ("fresh", contents(path));
}

TEST(FileSink, RestoreRefusesAFileShorterThanTheCheckpoint)
{
    qvtest::ScratchDir dir(L"sink-short");
    const std::wstring path = dir / L"short.bin";
    ASSERT_TRUE(qvtest::writeFile(path, std::string(100, 'q')));
    GenericFileStreamWriterImp sink(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    FileSinkState beyond{16, 0, 101};
    EXPECT_FALSE(sink.restoreState(reinterpret_cast<StreamStateHeader*>(&beyond)));
    // Nothing is made up: the file is not grown to the recorded length.
    EXPECT_EQ(100u, qv::fileSize(path));
}

TEST(FileSink, CreationAtAnOffsetContinuesThere)
{
    qvtest::ScratchDir dir(L"sink-offset");
    const std::wstring path = dir / L"offset.bin";
    const std::string original = qvtest::patternBytes(1000, 21);
    ASSERT_TRUE(qvtest::writeFile(path, original));
    {
        GenericFileStreamWriterImp sink(path.c_str(), 600);
        ASSERT_TRUE(sink.isOpen());
        EXPECT_EQ(600, sink.offset());
        EXPECT_EQ(4, write(sink, "tail"));
    }
    EXPECT_EQ(original.substr(0, 600) + "tail", contents(path));

    GenericFileStreamWriterImp beyond(path.c_str(), 5000);
    EXPECT_FALSE(beyond.isOpen());
    EXPECT_NE(0u, beyond.lastStatus());
    EXPECT_EQ(604u, qv::fileSize(path));
}

TEST(FileSink, CloseResetsTheOffset)
{
    qvtest::ScratchDir dir(L"sink-close");
    GenericFileStreamWriterImp sink((dir / L"c.bin").c_str());
    write(sink, "abc");
    sink.close();
    EXPECT_FALSE(sink.isOpen());
    EXPECT_EQ(0, sink.offset());
    EXPECT_EQ(0, write(sink, "more"));
}
