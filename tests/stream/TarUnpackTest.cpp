// Extraction by the tar sink of archives built in memory: block accounting, entry kinds, names,
// times, attributes, failures and checkpoints.
#include <gtest/gtest.h>

#include <cwctype>
#include <memory>
#include <string>
#include <vector>

#include "QvDLMCodes.h"
#include "TarTestSupport.h"
#include "stream/PathUtil.h"
#include "stream/StreamUnpack.h"
#include "stream/TARStreamWriterImp.h"
#include "support/TestSupport.h"

using tartest::TarBuilder;
namespace tarerror = qvdlm::tarerror;

namespace {

class TarUnpack : public testing::Test {
protected:
    TarUnpack() : scratch_(L"tar-unpack"), dest_(scratch_ / L"dest")
    {
        CreateDirectoryW(dest_.c_str(), nullptr);
        sink_ = std::make_unique<TARStreamWriterImp>(dest_.c_str());
    }

    std::wstring at(const std::string& relative) const { return dest_ + L"\\" + qvtest::widen(relative); }

    std::string contentOf(const std::string& relative) const
    {
        std::string bytes;
        EXPECT_TRUE(qvtest::readFile(tartest::longForm(at(relative)), bytes)) << relative;
        return bytes;
    }

    bool write(const std::string& bytes)
    {
        return sink_->writeBytes(reinterpret_cast<const uint8_t*>(bytes.data()),
                                 static_cast<uint32_t>(bytes.size())) == static_cast<int64_t>(bytes.size());
    }

    // Extracts in one write and ends the stream.
    bool extract(const std::string& archive) { return write(archive) && sink_->unpacker()->finish(); }

    std::vector<uint8_t> save(TARStreamWriterImp& sink)
    {
        const uint64_t size = sink.saveState(nullptr, nullptr);
        std::vector<uint8_t> record(size);
        uint64_t capacity = size;
        EXPECT_EQ(sink.saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity), size);
        return record;
    }

    qvtest::ScratchDir scratch_;
    std::wstring dest_;
    std::unique_ptr<TARStreamWriterImp> sink_;
};

const StreamStateHeader* asRecord(const std::vector<uint8_t>& bytes)
{
    return reinterpret_cast<const StreamStateHeader*>(bytes.data());
}

} // namespace

TEST_F(TarUnpack, ExtractsFilesAndFoldersAndEndsCleanly)
{
    const std::string archive = TarBuilder()
                                    .folder("docs/")
                                    .file("docs/readme.txt", "hello\n")
                                    .file("nested/deeper/data.bin", qvtest::patternBytes(3000, 1))
                                    .folder("empty/")
                                    .bytes();
    EXPECT_TRUE(extract(archive));
    EXPECT_EQ(sink_->lastStatus(), 0u);
    EXPECT_EQ(contentOf("docs/readme.txt"), "hello\n");
    EXPECT_EQ(contentOf("nested/deeper/data.bin"), qvtest::patternBytes(3000, 1));
    const auto tree = tartest::readTree(dest_);
    ASSERT_TRUE(tree.count("empty"));
    EXPECT_TRUE(tree.at("empty").folder);
    EXPECT_EQ(tree.size(), 6u);
}

TEST_F(TarUnpack, AssemblesAHeaderSplitOverTwoWrites)
{
    const std::string archive = TarBuilder().file("split.txt", "abc").bytes();
    ASSERT_TRUE(write(archive.substr(0, 300)));
    EXPECT_FALSE(qvtest::fileExists(at("split.txt")));
    ASSERT_TRUE(write(archive.substr(300, 212)));
    EXPECT_TRUE(qvtest::fileExists(at("split.txt")));
    ASSERT_TRUE(write(archive.substr(512)));
    EXPECT_TRUE(sink_->unpacker()->finish());
    EXPECT_EQ(contentOf("split.txt"), "abc");
}

TEST_F(TarUnpack, KeepsBlockBoundariesForSizesAroundMultiplesOf512)
{
    TarBuilder builder;
    const size_t sizes[] = {0, 1, 511, 512, 513, 1024, 1025};
    for (size_t size : sizes)
        builder.file("f" + std::to_string(size), qvtest::patternBytes(size, static_cast<uint32_t>(size + 7)));
    builder.file("after.txt", "after");
    ASSERT_TRUE(extract(builder.bytes()));
    for (size_t size : sizes)
        EXPECT_EQ(contentOf("f" + std::to_string(size)), qvtest::patternBytes(size, static_cast<uint32_t>(size + 7)))
            << size;
    EXPECT_EQ(contentOf("after.txt"), "after");
}

TEST_F(TarUnpack, ALongNameOfTwoBlocksReplacesTheNextHeadersName)
{
    const std::string longName = std::string(150, 'a') + "/" + std::string(150, 'b') + "/" + std::string(150, 'c') +
                                 "/" + std::string(142, 'd') + ".txt";
    ASSERT_EQ(longName.size() + 1, 600u) << "with its terminator";
    tartest::Header h;
    h.name = "truncated-name-in-header";
    h.size = 4;
    const std::string archive = TarBuilder().longText('L', longName).entry(h, "long").file("next.txt", "n").bytes();
    ASSERT_TRUE(extract(archive));
    EXPECT_EQ(contentOf(longName), "long");
    EXPECT_FALSE(qvtest::fileExists(at("truncated-name-in-header")));
    // The long name served one entry only.
    EXPECT_EQ(contentOf("next.txt"), "n");
}

TEST_F(TarUnpack, ReadsTheUstarPrefixAsTheNamesFolder)
{
    tartest::Header h;
    h.posixMagic = true;
    h.prefix = "some/folder";
    h.name = "file.txt";
    h.size = 2;
    ASSERT_TRUE(extract(TarBuilder().entry(h, "ok").bytes()));
    EXPECT_EQ(contentOf("some/folder/file.txt"), "ok");
}

TEST_F(TarUnpack, SkipsAZeroTypeflagHeaderAndReadsItsDataAsHeaders)
{
    tartest::Header old;
    old.name = "old-style.txt";
    old.type = '\0';
    const std::string inner = TarBuilder().file("inner.txt", "from the data").bytes(false);
    old.size = inner.size();
    ASSERT_TRUE(extract(TarBuilder().entry(old, inner).bytes()));
    EXPECT_FALSE(qvtest::fileExists(at("old-style.txt")));
    EXPECT_EQ(contentOf("inner.txt"), "from the data");
}

TEST_F(TarUnpack, IgnoresFlagsOutsideTheRangeAndSkipsPaxRecords)
{
    tartest::Header label;
    label.name = "VOLUME";
    label.type = 'V';
    tartest::Header pax;
    pax.name = "PaxHeaders/x";
    pax.type = 'x';
    // Records long enough to reach the typeflag offset, which would otherwise be read as a header.
    const std::string records = "300 path=" + std::string(290, '0') + "\n";
    pax.size = records.size();
    tartest::Header device;
    device.name = "dev/null";
    device.type = '3';
    const std::string archive =
        TarBuilder().entry(label).entry(pax, records).entry(device).file("plain.txt", "plain").bytes();
    ASSERT_TRUE(extract(archive));
    EXPECT_EQ(contentOf("plain.txt"), "plain");
    EXPECT_FALSE(qvtest::fileExists(at("dev")));
    EXPECT_FALSE(qvtest::fileExists(at("VOLUME")));
}

TEST_F(TarUnpack, SetsModificationTimes)
{
    ASSERT_TRUE(extract(TarBuilder().file("dated.txt", "x", 0644, 1234567890).file("empty.txt", "", 0644, 987654321).bytes()));
    EXPECT_EQ(tartest::fileTime(at("dated.txt")), 1234567890);
    EXPECT_EQ(tartest::fileTime(at("empty.txt")), 987654321);
}

TEST_F(TarUnpack, ATimeOfZeroLeavesTheFilesOwnTime)
{
    ASSERT_TRUE(extract(TarBuilder().file("now.txt", "x", 0644, 0).bytes()));
    EXPECT_GT(tartest::fileTime(at("now.txt")), 1600000000);
}

TEST_F(TarUnpack, FlipsReadOnlyForModesWithoutOwnerWrite)
{
    ASSERT_TRUE(extract(TarBuilder()
                            .file("ro.txt", "ro", 0444)
                            .file("rw.txt", "rw", 0644)
                            .file("nomode.txt", "none", 0)
                            .file("ro-empty.txt", "", 0400)
                            .bytes()));
    const auto tree = tartest::readTree(dest_);
    EXPECT_TRUE(tree.at("ro.txt").readOnly);
    EXPECT_TRUE(tree.at("ro-empty.txt").readOnly);
    EXPECT_FALSE(tree.at("rw.txt").readOnly);
    EXPECT_FALSE(tree.at("nomode.txt").readOnly);
}

TEST_F(TarUnpack, OverwritesAnExistingReadOnlyFileAndKeepsItReadOnly)
{
    ASSERT_TRUE(qvtest::writeFile(at("ro.txt"), "old and longer content"));
    SetFileAttributesW(at("ro.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    ASSERT_TRUE(extract(TarBuilder().file("ro.txt", "new", 0444).bytes()));
    EXPECT_EQ(contentOf("ro.txt"), "new");
    EXPECT_TRUE(tartest::readTree(dest_).at("ro.txt").readOnly);
}

TEST_F(TarUnpack, MakesHardLinksIncludingLongLinkNames)
{
    const std::string longTarget = std::string(120, 't') + "/target.bin";
    const std::string archive = TarBuilder()
                                    .file("original.txt", "shared")
                                    .hardLink("link.txt", "original.txt")
                                    .file(longTarget, "long target")
                                    .hardLink("link-long.txt", longTarget)
                                    .bytes();
    ASSERT_TRUE(extract(archive));
    EXPECT_EQ(contentOf("link.txt"), "shared");
    EXPECT_EQ(contentOf("link-long.txt"), "long target");
}

TEST_F(TarUnpack, AHardLinkToAMissingFileFails)
{
    EXPECT_FALSE(write(TarBuilder().hardLink("link.txt", "missing.txt").bytes()));
    EXPECT_EQ(sink_->lastStatus(), tarerror::HardLink);
}

TEST_F(TarUnpack, MakesSymbolicLinksWithRelativeTargets)
{
    tartest::LinkRecorder links;
    const std::string longTarget = "deep/" + std::string(110, 'x') + "/file";
    ASSERT_TRUE(extract(TarBuilder()
                            .symLink("sub/link", "../top.txt")
                            .symLink("long-link", longTarget)
                            .symLink("self", ".")
                            .bytes()));
    const auto calls = links.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].second, L"..\\top.txt");
    EXPECT_NE(calls[0].first.find(L"dest\\sub\\link"), std::wstring::npos);
    EXPECT_EQ(calls[1].second, qvtest::widen(std::string("deep\\") + std::string(110, 'x') + "\\file"));
    EXPECT_NE(calls[1].first.find(L"dest\\long-link"), std::wstring::npos);
    EXPECT_EQ(calls[2].second, L".");
    // The link's folder is there for it.
    EXPECT_TRUE(tartest::readTree(dest_).at("sub").folder);
}

TEST_F(TarUnpack, CreatingASinkChoosesTheSystemsLinkOperation)
{
    tartest::LinkRecorder links;
    TARStreamWriterImp later(dest_.c_str());
    const std::string archive = TarBuilder().symLink("link", "target").bytes();
    // The system's own call, whatever it makes of the link here (Wine answers TRUE and makes nothing).
    ASSERT_TRUE(tartest::feed(later, archive, archive.size()));
    EXPECT_TRUE(later.endOfInput());
    EXPECT_TRUE(links.calls().empty());
}

TEST_F(TarUnpack, AFailedSymbolicLinkReportsItsCode)
{
    tartest::LinkRecorder links;
    qv::setSymbolicLinkOperation([](const wchar_t*, const wchar_t*, unsigned long) -> unsigned char {
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
        return 0;
    });
    EXPECT_TRUE(write(TarBuilder().symLink("link", "target").bytes())); // a link never fails the package
    EXPECT_EQ(sink_->lastStatus(), 0u);
}

TEST_F(TarUnpack, AFileWhereAFolderStandsFails)
{
    CreateDirectoryW(at("taken").c_str(), nullptr);
    EXPECT_FALSE(write(TarBuilder().file("taken", "data").bytes()));
    EXPECT_EQ(sink_->lastStatus(), tarerror::FileOpen);
}

TEST_F(TarUnpack, AFolderWhereAFileStandsFails)
{
    ASSERT_TRUE(qvtest::writeFile(at("taken"), "file"));
    EXPECT_FALSE(write(TarBuilder().folder("taken/").bytes()));
    EXPECT_EQ(sink_->lastStatus(), tarerror::Folder);
}

TEST_F(TarUnpack, WithoutADestinationNothingCanBeOpened)
{
    TARStreamWriterImp bare;
    const std::string archive = TarBuilder().file("x.txt", "x").bytes();
    EXPECT_LT(bare.writeBytes(reinterpret_cast<const uint8_t*>(archive.data()), static_cast<uint32_t>(archive.size())),
              0);
    EXPECT_EQ(bare.lastStatus(), tarerror::FileOpen);
}

TEST_F(TarUnpack, TheDestinationIsKeptWithoutATrailingSeparator)
{
    StreamUnpack* unpack = sink_->unpacker();
    ASSERT_NE(unpack, nullptr);
    EXPECT_TRUE(unpack->setDestinationFolder((dest_ + L"\\\\").c_str()));
    EXPECT_EQ(std::wstring(unpack->destinationFolder()), dest_);
    EXPECT_FALSE(unpack->setDestinationFolder(nullptr));
    EXPECT_FALSE(unpack->setDestinationFolder(L""));
}

TEST_F(TarUnpack, AHeaderWithAWrongChecksumIsNotTar)
{
    tartest::Header h;
    h.name = "x.txt";
    std::string header = tartest::headerBlock(h);
    header[0] = 'y';
    EXPECT_FALSE(write(header));
    EXPECT_EQ(sink_->lastStatus(), tarerror::BadHeader);
    EXPECT_FALSE(qvtest::fileExists(at("x.txt")));
    EXPECT_FALSE(qvtest::fileExists(at("y.txt")));
}

TEST_F(TarUnpack, AHeaderWithoutChecksumIsTaken)
{
    tartest::Header h;
    h.name = "unsummed.txt";
    h.size = 3;
    h.checksum = false;
    ASSERT_TRUE(extract(TarBuilder().entry(h, "abc").bytes()));
    EXPECT_EQ(contentOf("unsummed.txt"), "abc");
}

TEST_F(TarUnpack, RandomBytesAreNotTar)
{
    const bool written = write(qvtest::patternBytes(64 * 1024, 99));
    EXPECT_FALSE(written && sink_->unpacker()->finish());
    EXPECT_EQ(sink_->lastStatus(), tarerror::BadHeader);
    EXPECT_TRUE(tartest::readTree(dest_).empty());
}

TEST_F(TarUnpack, TextWithoutAnyHeaderIsNotTar)
{
    std::string page;
    while (page.size() < 8192)
        page += "<html><body>the server says no</body></html>\n";
    for (auto& c : page)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    EXPECT_FALSE(write(page) && sink_->unpacker()->finish());
    EXPECT_EQ(sink_->lastStatus(), tarerror::BadHeader);
    EXPECT_TRUE(tartest::readTree(dest_).empty());
}

TEST_F(TarUnpack, AStreamEndingInsideAnEntryIsTruncated)
{
    const std::string archive = TarBuilder().file("big.bin", qvtest::patternBytes(5000, 3)).bytes(false);
    struct Cut {
        size_t at;
        const char* where;
    };
    const Cut cuts[] = {{100, "inside the header"}, {512 + 1024, "inside the data"}, {archive.size() - 1, "one byte short"}};
    for (const Cut& cut : cuts) {
        TARStreamWriterImp sink(dest_.c_str());
        ASSERT_TRUE(tartest::feed(sink, archive, 4096, 0, cut.at)) << cut.where;
        EXPECT_FALSE(sink.unpacker()->finish()) << cut.where;
        EXPECT_EQ(sink.lastStatus(), tarerror::Truncated) << cut.where;
    }
    TARStreamWriterImp whole(dest_.c_str());
    ASSERT_TRUE(tartest::feed(whole, archive, 4096));
    EXPECT_TRUE(whole.unpacker()->finish()) << "an archive ending at an entry boundary is complete";
}

TEST_F(TarUnpack, TheEndOfInputIsCheckedLikeTheUnpackersFinish)
{
    const std::string archive = TarBuilder().file("a.txt", qvtest::patternBytes(2000, 1)).bytes();
    ASSERT_TRUE(write(archive.substr(0, 1000)));
    EXPECT_FALSE(sink_->endOfInput());
    EXPECT_EQ(sink_->lastStatus(), tarerror::Truncated);

    TARStreamWriterImp whole(dest_.c_str());
    ASSERT_TRUE(tartest::feed(whole, archive, 700));
    EXPECT_TRUE(whole.endOfInput());
    EXPECT_EQ(whole.lastStatus(), 0u);
}

TEST_F(TarUnpack, APartialBlockAfterTheEndMarkerIsLeftAlone)
{
    const std::string archive = TarBuilder().file("a.txt", "a").bytes() + "trailing";
    EXPECT_TRUE(extract(archive));
    EXPECT_EQ(contentOf("a.txt"), "a");
}

TEST_F(TarUnpack, WhatFollowsTheEndMarkerIsReadOnWhileItHoldsHeaders)
{
    // Concatenated archives go on after the first end marker; anything else appended is left alone.
    std::string appended = qvtest::patternBytes(4096, 77);
    appended[156] = '0'; // would be a regular file if it were taken as a header
    const std::string archive = TarBuilder().file("a.txt", "a").bytes() + TarBuilder().file("b.txt", "b").bytes() +
                                appended + TarBuilder().file("c.txt", "c").bytes();
    ASSERT_TRUE(extract(archive)) << std::hex << sink_->lastStatus();
    EXPECT_EQ(contentOf("a.txt"), "a");
    EXPECT_EQ(contentOf("b.txt"), "b");
    EXPECT_FALSE(qvtest::fileExists(at("c.txt")));
    EXPECT_EQ(tartest::readTree(dest_).size(), 2u);
}

TEST_F(TarUnpack, ARegularEntryNamedLikeAFolderIsAFolder)
{
    ASSERT_TRUE(extract(TarBuilder().file("old-folder/", "").file("old-folder/in.txt", "in").bytes()));
    EXPECT_TRUE(tartest::readTree(dest_).at("old-folder").folder);
    EXPECT_EQ(contentOf("old-folder/in.txt"), "in");
}

TEST_F(TarUnpack, AStreamEndingAfterALongNameIsTruncated)
{
    const std::string archive = TarBuilder().longText('L', std::string(300, 'n')).bytes(false);
    ASSERT_TRUE(write(archive.substr(0, 1024)));
    EXPECT_FALSE(sink_->unpacker()->finish());
    EXPECT_EQ(sink_->lastStatus(), tarerror::Truncated);

    TARStreamWriterImp sink(dest_.c_str());
    ASSERT_TRUE(tartest::feed(sink, archive, 512));
    EXPECT_FALSE(sink.unpacker()->finish()) << "the name's entry never came";
}

TEST_F(TarUnpack, AnOverlongLongNameCannotBeConverted)
{
    tartest::Header h;
    h.name = "././@LongLink";
    h.type = 'L';
    h.size = 1u << 20;
    EXPECT_FALSE(write(tartest::headerBlock(h)));
    EXPECT_EQ(sink_->lastStatus(), tarerror::NameConversion);
}

TEST_F(TarUnpack, AFailureStopsTheStreamForGood)
{
    EXPECT_FALSE(write(TarBuilder().file("../out.txt", "x").bytes()));
    EXPECT_EQ(sink_->lastStatus(), tarerror::FileOpen);
    EXPECT_FALSE(write(TarBuilder().file("fine.txt", "x").bytes()));
    EXPECT_FALSE(qvtest::fileExists(at("fine.txt")));
    EXPECT_FALSE(sink_->unpacker()->finish());
}

TEST_F(TarUnpack, AZeroLengthWriteTakesNothing)
{
    EXPECT_EQ(sink_->writeBytes(nullptr, 0), 0);
    EXPECT_TRUE(sink_->unpacker()->finish());
}

TEST_F(TarUnpack, EntriesOutsideTheDestinationAreRefusedWithTheirKindsCode)
{
    struct Case {
        std::string archive;
        uint32_t code;
    };
    const Case cases[] = {
        {TarBuilder().file("../escape.txt", "x").bytes(), tarerror::FileOpen},
        {TarBuilder().file("a/../../escape.txt", "x").bytes(), tarerror::FileOpen},
        {TarBuilder().folder("../escape-dir/").bytes(), tarerror::Folder},
        {TarBuilder().file("x.txt", "x").hardLink("h.txt", "../x.txt").bytes(), tarerror::HardLink},
        {TarBuilder().symLink("s", "../").bytes(), tarerror::SymbolicLink},
        {TarBuilder().symLink("s", "/tmp").bytes(), tarerror::SymbolicLink},
        {TarBuilder().file(std::string(60, 'd') + "/" + std::string(60, 'e') + "/../../../escape.txt", "x").bytes(),
         tarerror::FileOpen},
    };
    for (const Case& c : cases) {
        tartest::LinkRecorder links;
        TARStreamWriterImp sink(dest_.c_str());
        EXPECT_FALSE(tartest::feed(sink, c.archive, c.archive.size()));
        EXPECT_EQ(sink.lastStatus(), c.code);
        EXPECT_TRUE(links.calls().empty());
    }
    const auto outside = tartest::readTree(scratch_.path());
    EXPECT_EQ(outside.size(), 1u + tartest::readTree(dest_).size()) << "only dest and what is inside it";
}

// Checkpoints

TEST_F(TarUnpack, SaveStateTellsItsSizeAndWritesOnlyIntoRoomEnough)
{
    const uint64_t size = sink_->saveState(nullptr, nullptr);
    ASSERT_GT(size, 1024u);
    std::vector<uint8_t> record(size, 0xAB);
    uint64_t small = size - 1;
    EXPECT_EQ(sink_->saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &small), size);
    EXPECT_EQ(record[0], 0xAB) << "nothing written into a record too small";
    uint64_t enough = size;
    EXPECT_EQ(sink_->saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &enough), size);
    EXPECT_EQ(asRecord(record)->size, size);
}

TEST_F(TarUnpack, RestoreRefusesNullShortAndForeignRecords)
{
    EXPECT_FALSE(sink_->restoreState(nullptr));
    std::vector<uint8_t> record = save(*sink_);

    std::vector<uint8_t> shorter(record.begin(), record.end() - 1);
    reinterpret_cast<StreamStateHeader*>(shorter.data())->size = static_cast<uint32_t>(shorter.size());
    EXPECT_FALSE(sink_->restoreState(asRecord(shorter)));

    std::vector<uint8_t> tiny(8, 0);
    reinterpret_cast<StreamStateHeader*>(tiny.data())->size = 8;
    EXPECT_FALSE(sink_->restoreState(asRecord(tiny)));

    std::vector<uint8_t> foreign = record;
    foreign[4] ^= 0xFF;
    EXPECT_FALSE(sink_->restoreState(asRecord(foreign)));

    EXPECT_TRUE(sink_->restoreState(asRecord(record)));
}

TEST_F(TarUnpack, TheUnpackerRecordCarriesTheDestination)
{
    StreamUnpack* unpack = sink_->unpacker();
    const uint64_t size = unpack->saveState(nullptr, nullptr);
    std::vector<uint8_t> record(size);
    uint64_t capacity = size;
    ASSERT_EQ(unpack->saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity), size);

    TARStreamWriterImp other;
    EXPECT_FALSE(other.unpacker()->restoreState(nullptr));
    std::vector<uint8_t> cut(record.begin(), record.end() - 2);
    reinterpret_cast<StreamStateHeader*>(cut.data())->size = static_cast<uint32_t>(cut.size());
    EXPECT_FALSE(other.unpacker()->restoreState(asRecord(cut)));
    ASSERT_TRUE(other.unpacker()->restoreState(asRecord(record)));
    EXPECT_EQ(std::wstring(other.unpacker()->destinationFolder()), dest_);
}

TEST_F(TarUnpack, ARecordOfAnotherFolderCannotMoveTheDestination)
{
    // A damaged checkpoint once named the sibling "des": extraction must stay where the job put it.
    const std::wstring sibling = scratch_ / L"des";
    TARStreamWriterImp elsewhere(sibling.c_str());
    StreamUnpack* foreign = elsewhere.unpacker();
    std::vector<uint8_t> record(foreign->saveState(nullptr, nullptr));
    uint64_t capacity = record.size();
    ASSERT_EQ(foreign->saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity), record.size());
    EXPECT_FALSE(sink_->unpacker()->restoreState(asRecord(record)));
    EXPECT_EQ(std::wstring(sink_->unpacker()->destinationFolder()), dest_);

    // The same folder, written another way, is this download's own.
    std::wstring upper = dest_ + L"\\";
    for (wchar_t& c : upper)
        c = static_cast<wchar_t>(std::towupper(c));
    TARStreamWriterImp same(upper.c_str());
    record.assign(same.unpacker()->saveState(nullptr, nullptr), 0);
    capacity = record.size();
    ASSERT_EQ(same.unpacker()->saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity), record.size());
    EXPECT_TRUE(sink_->unpacker()->restoreState(asRecord(record)));
    EXPECT_EQ(std::wstring(sink_->unpacker()->destinationFolder()), dest_);
}

TEST_F(TarUnpack, ACheckpointAtAnyPointContinuesIntoAnIdenticalTree)
{
    const std::string longName = std::string(200, 'L') + "/" + std::string(120, 'M') + "/named.bin";
    const std::string archive = TarBuilder()
                                    .folder("f/")
                                    .file("f/a.bin", qvtest::patternBytes(1500, 1), 0644, 1111111111)
                                    .file(longName, qvtest::patternBytes(700, 2))
                                    .file("ro.txt", "read only", 0444, 1222222222)
                                    .hardLink("f/a-link.bin", "f/a.bin")
                                    .file("tail.bin", qvtest::patternBytes(2048, 3))
                                    .bytes();
    ASSERT_TRUE(extract(archive)) << std::hex << sink_->lastStatus();
    const auto expected = tartest::readTree(dest_);

    const size_t cuts[] = {0, 1, 511, 512, 700, 1024, 1900, 2560, 3000, 3584, 4100, 4700, 5632, 6000, archive.size() - 1000};
    for (size_t cut : cuts) {
        qvtest::ScratchDir run(L"tar-unpack-cp");
        TARStreamWriterImp first(run.path().c_str());
        ASSERT_TRUE(tartest::feed(first, archive, 333, 0, cut)) << cut;
        std::vector<uint8_t> record = save(first);
        // The stream went on past the checkpoint before it stopped: those bytes must not count.
        ASSERT_TRUE(tartest::feed(first, archive, 333, cut, std::min(archive.size(), cut + 1400))) << cut;
        first.close();

        TARStreamWriterImp restored;
        ASSERT_TRUE(restored.restoreState(asRecord(record))) << cut;
        EXPECT_EQ(std::wstring(restored.unpacker()->destinationFolder()), run.path());
        ASSERT_TRUE(tartest::feed(restored, archive, 4096, cut)) << cut;
        EXPECT_TRUE(restored.unpacker()->finish()) << cut;
        const auto tree = tartest::readTree(run.path());
        ASSERT_EQ(tree.size(), expected.size()) << cut;
        for (const auto& [name, entry] : expected) {
            ASSERT_TRUE(tree.count(name)) << name << " at cut " << cut;
            EXPECT_EQ(tree.at(name).content, entry.content) << name << " at cut " << cut;
            EXPECT_EQ(tree.at(name).readOnly, entry.readOnly) << name << " at cut " << cut;
            if (!entry.folder) {
                EXPECT_EQ(tree.at(name).mtime, entry.mtime) << name << " at cut " << cut;
            }
        }
    }
}

TEST_F(TarUnpack, ACheckpointWhoseFileLostBytesIsRefused)
{
    const std::string archive = TarBuilder().file("data.bin", qvtest::patternBytes(4000, 5)).bytes();
    ASSERT_TRUE(tartest::feed(*sink_, archive, 512, 0, 2560));
    std::vector<uint8_t> record = save(*sink_);
    sink_->close();
    ASSERT_TRUE(qvtest::writeFile(at("data.bin"), "short"));
    TARStreamWriterImp restored;
    EXPECT_FALSE(restored.restoreState(asRecord(record)));

    DeleteFileW(at("data.bin").c_str());
    TARStreamWriterImp missing;
    EXPECT_FALSE(missing.restoreState(asRecord(record)));
}
