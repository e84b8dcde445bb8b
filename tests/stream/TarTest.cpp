// The tar sink: archives built entry by entry (hostile ones too), archives of GNU tar in any chunking,
// and checkpoints taken mid-entry.
#include <gtest/gtest.h>

#include <cwctype>

#include "QvDLMCodes.h"
#include "TarTestSupport.h"
#include "stream/TARStreamWriterImp.h"
#include "support/TestSupport.h"

using namespace tartest;
using namespace qvdlm::tarerror;

namespace {

std::string archiveFile(const std::wstring& name) { return contents(workFolder(L"tar-archives\\" + name)); }

const std::string kAbsent = "<absent>";
struct Case {
    const char* what;
    std::string archive;
    uint32_t code; // the sink's status after the end of input; 0: a whole archive
    std::vector<std::pair<std::string, std::string>> expect; // path in dest and content (or kAbsent)
};

std::vector<Case> cases()
{
    const std::string longName = std::string(150, 'a') + "/" + std::string(150, 'b') + "/" + std::string(150, 'c') +
                                 "/" + std::string(142, 'd') + ".txt"; // 600 bytes with its terminator: two blocks
    std::string longTarget = std::string(120, 't') + "/target.bin", climb; // 30 folders down, 31 up
    for (int i = 0; i < 61; ++i)
        climb += i < 30 ? "deep/" : "../";
    const std::string inner = TarBuilder().file("inner.txt", "from the data").bytes(false);
    const std::string records = "300 path=" + std::string(290, '0') + "\n";
    const std::string big = TarBuilder().file("big.bin", std::string(5000, 'b')).bytes(false);
    std::string unsummed = TarBuilder().file("unsummed.txt", "abc").bytes(), damaged = TarBuilder().file("x.txt", "x").bytes();
    unsummed.replace(148, 8, 8, '\0');
    damaged[0] = 'y';
    std::string appended(4096, 'q');
    appended[156] = '0'; // would be a regular file if it were taken as a header
    const auto file = [](const std::string& name) { return TarBuilder().file("inside/fine.txt", "fine").file(name, "evil").bytes(); };
    const auto hard = [](const std::string& target) { return TarBuilder().hardLink("h.txt", target).bytes(); };
    const auto sym = [](const std::string& target) { return TarBuilder().symLink("s", target).bytes(); };
    return {
        {"sizes around whole blocks", TarBuilder().folder("d/").file("d/0", "").file("d/511", std::string(511, '5'))
             .file("d/512", std::string(512, '2')).file("d/513", std::string(513, '3')).file("after", "after").bytes(), 0,
         {{"d/0", ""}, {"d/511", std::string(511, '5')}, {"d/513", std::string(513, '3')}, {"after", "after"}}},
        {"long name replaces the next header's name", TarBuilder().longText('L', longName).entry({"cut", '0', 4}, "long")
             .file("next.txt", "n").bytes(), 0, {{longName, "long"}, {"cut", kAbsent}, {"next.txt", "n"}}},
        {"zero typeflag skipped, its data read as headers", TarBuilder().entry({"old.txt", '\0', inner.size()}, inner).bytes(), 0,
         {{"old.txt", kAbsent}, {"inner.txt", "from the data"}}},
        {"labels, pax records and devices make nothing", TarBuilder().entry({"VOLUME", 'V'}).entry({"Pax/x", 'x', records.size()}, records)
             .entry({"dev/null", '3'}).file("plain.txt", "plain").bytes(), 0, {{"plain.txt", "plain"}, {"dev", kAbsent}}},
        {"hard links, with long link names", TarBuilder().file("o.txt", "shared").hardLink("l.txt", "o.txt").file(longTarget, "far")
             .hardLink("l2.txt", longTarget).bytes(), 0, {{"l.txt", "shared"}, {"l2.txt", "far"}}},
        {"regular entry named like a folder", TarBuilder().file("old/", "").file("old/in.txt", "in").bytes(), 0, {{"old/in.txt", "in"}}},
        {"concatenated archives go on, other bytes after the end are left", TarBuilder().file("a.txt", "a").bytes() +
             TarBuilder().file("b.txt", "b").bytes() + appended + TarBuilder().file("c.txt", "c").bytes(), 0,
         {{"a.txt", "a"}, {"b.txt", "b"}, {"c.txt", kAbsent}}},
        {"header without a checksum", unsummed, 0, {{"unsummed.txt", "abc"}}},
        {"header with a wrong checksum", damaged, BadHeader, {{"x.txt", kAbsent}, {"y.txt", kAbsent}}},
        {"random bytes", qvtest::patternBytes(65536, 99), BadHeader, {}},
        {"hard link to a missing file", hard("missing.txt"), HardLink, {}},
        {"file on a folder", TarBuilder().folder("t/").file("t", "x").bytes(), FileOpen, {}}, {"folder on a file", TarBuilder().file("t", "x").folder("t/").bytes(), Folder, {}},
        {"overlong long name", headerBlock({"././@LongLink", 'L', 1u << 20}), NameConversion, {}},
        {"ends inside a header", big.substr(0, 100), Truncated, {}}, {"ends inside the data", big.substr(0, 1536), Truncated, {}},
        {"ends one byte short", big.substr(0, big.size() - 1), Truncated, {}},
        {"ends after a long name", TarBuilder().longText('L', std::string(300, 'n')).bytes(false), Truncated, {}},
        {"ends at an entry boundary", big, 0, {}},
        // Hostile entries: nothing may land outside the destination, and a failure stops the stream.
        {"parent folder", file("../evil.txt"), FileOpen, {{"inside/fine.txt", "fine"}}},
        {"climbs out", file("a/../../evil.txt"), FileOpen, {}}, {"", file("a\\..\\..\\evil.txt"), FileOpen, {}},
        {"long name that climbs out", file(climb + "evil.txt"), FileOpen, {}},
        {"absolute paths", file("/abs-evil.txt"), FileOpen, {}}, {"", file("\\abs-evil.txt"), FileOpen, {}},
        {"drive paths", file("C:/evil.txt"), FileOpen, {}}, {"", file("C:evil.txt"), FileOpen, {}},
        {"data stream", file("inside.txt:stream"), FileOpen, {}}, {"sibling", file("../dest2/evil.txt"), FileOpen, {}},
        {"a failure stops the stream", TarBuilder().file("../out.txt", "x").file("fine.txt", "x").bytes(), FileOpen, {{"fine.txt", kAbsent}}},
        {"folders outside", TarBuilder().folder("../evil-dir/").bytes(), Folder, {}}, {"", TarBuilder().folder("/evil-dir/").bytes(), Folder, {}},
        {"hard links to files outside", hard("../bait.txt"), HardLink, {}}, {"", hard("../dest2/bait.txt"), HardLink, {}},
        {"", hard("C:/Windows/win.ini"), HardLink, {}}, {"", hard(climb + "bait.txt"), HardLink, {}},
        {"hard link placed outside", TarBuilder().file("f", "f").hardLink("../h.txt", "f").bytes(), HardLink, {}},
        {"links that lead outside", sym(".."), SymbolicLink, {}}, {"", sym("/etc"), SymbolicLink, {}}, {"", sym("C:\\Windows"), SymbolicLink, {}},
        {"", sym("sub/../../x"), SymbolicLink, {}}, {"", sym(climb), SymbolicLink, {}}, {"", TarBuilder().symLink("sub/s", "../../dest2").bytes(), SymbolicLink, {}},
        {"link placed outside", TarBuilder().symLink("../s", "dest/inside").bytes(), SymbolicLink, {}},
        {"file that climbs out through a link made before", TarBuilder().symLink("s", "inner").file("s/../../evil.txt", "e").bytes(),
         FileOpen, {}},
    };
}

} // namespace

TEST(TarSink, BuiltArchivesExtractOrFailWithTheirCode)
{
    const auto all = cases();
    for (const Case& c : all) {
        for (size_t chunk : {size_t{333}, size_t{1} << 20}) {
            SCOPED_TRACE(std::to_string(&c - all.data()) + " " + c.what + ", chunk " + std::to_string(chunk));
            qvtest::ScratchDir root(L"tar-built");
            const std::wstring dest = root / L"dest";
            ASSERT_TRUE(CreateDirectoryW(dest.c_str(), nullptr) && CreateDirectoryW((root / L"dest2").c_str(), nullptr));
            ASSERT_TRUE(qvtest::writeFile(root / L"bait.txt", "bait") && qvtest::writeFile(root / L"dest2\\bait.txt", "bait"));
            TARStreamWriterImp sink(dest.c_str());
            LinkRecorder links;
            EXPECT_EQ(c.code == 0, feed(sink, c.archive, chunk) && sink.endOfInput());
            EXPECT_EQ(c.code, sink.lastStatus());
            auto tree = readTree(dest);
            for (const auto& [path, content] : c.expect)
                EXPECT_TRUE(content == kAbsent ? !tree.count(path) : tree.count(path) && tree[path].content == content) << path;
            tree = readTree(root.path());
            for (auto it = tree.begin(); it != tree.end();)
                it = it->first.rfind("dest/", 0) == 0 ? tree.erase(it) : std::next(it);
            EXPECT_EQ(tree.size(), 4u) << "something appeared beside the destination";
            EXPECT_TRUE(tree["bait.txt"].content == "bait" && tree["dest2/bait.txt"].content == "bait");
            for (const auto& call : links.calls())
                EXPECT_EQ(call.first.find(dest + L"\\"), 0u) << qvtest::narrow(call.first);
            for (const wchar_t* escaped : {L"Z:\\abs-evil.txt", L"C:\\abs-evil.txt", L"C:\\evil.txt", L"C:\\evil-dir"})
                EXPECT_FALSE(qvtest::fileExists(escaped)) << qvtest::narrow(escaped);
        }
    }
}

TEST(TarSink, GnuAndUstarArchivesExtractByteIdenticalInAnyChunking)
{
    for (const auto& [format, chunk] : {std::pair<std::string, size_t>{"gnu", 1}, {"gnu", 511}, {"gnu", 512}, {"gnu", 4097},
                                        {"gnu", 4u << 20}, {"ustar", 333}, {"ustar", 4u << 20}}) {
        SCOPED_TRACE(format + " " + std::to_string(chunk));
        qvtest::ScratchDir dest(L"tar-gnu");
        TARStreamWriterImp sink(dest.path().c_str());
        LinkRecorder links;
        ASSERT_TRUE(feed(sink, archiveFile(qvtest::widen(format) + L".tar"), chunk)) << std::hex << sink.lastStatus();
        EXPECT_TRUE(sink.endOfInput());
        const auto calls = links.calls();
        expectTree(dest.path(), format, &calls);
    }
    // Links already in dest (made by the fixture: Wine cannot make them) are never followed out of it.
    const auto before = [] { return TarBuilder().symLink("t", "inner"); };
    const struct { const wchar_t* link; std::string archive; uint32_t code; } linked[] = {
        {L"folder", before().file("s/evil.txt", "evil").bytes(), FileOpen}, {L"file", before().file("s", "x").bytes(), FileOpen},
        {L"file", before().hardLink("h", "s").bytes(), HardLink}, {L"folder", before().symLink("s/x", "y").bytes(), SymbolicLink},
        {L"folder", before().folder("s/sub/").bytes(), Folder}};
    for (const auto& row : linked) {
        SCOPED_TRACE(&row - linked);
        const std::wstring folder = workFolder(L"tar-archives\\linked\\") + row.link;
        TARStreamWriterImp sink((folder + L"\\dest").c_str());
        LinkRecorder links;
        EXPECT_FALSE(feed(sink, row.archive, 512));
        EXPECT_EQ(row.code, sink.lastStatus());
        const auto outside = readTree(folder + L"\\outside");
        ASSERT_EQ(outside.size(), 1u) << "something was written into the linked folder";
        EXPECT_EQ(outside.begin()->second.content, "bait\n");
    }
}

TEST(TarSink, CheckpointMidEntryRestoredIntoAFreshSinkGivesTheSameTree)
{
    const std::string archive = archiveFile(L"gnu.tar");
    const size_t longName = archive.find("././@LongLink");
    ASSERT_NE(longName, std::string::npos);
    for (size_t cut : {size_t{7777}, longName + 100, longName + 512 + 300, archive.size() / 2 + 4097, archive.size() - 10243}) {
        SCOPED_TRACE(cut);
        qvtest::ScratchDir dest(L"tar-checkpoint");
        std::string record;
        {
            TARStreamWriterImp first(dest.path().c_str());
            ASSERT_TRUE(feed(first, archive, 65536, 0, cut));
            record = saveRecord(first);
            ASSERT_TRUE(feed(first, archive, 65536, cut, cut + 300000)); // lost with the process
        }
        TARStreamWriterImp restored;
        ASSERT_TRUE(restored.restoreState(asRecord(record)));
        ASSERT_TRUE(feed(restored, archive, 4 << 20, cut));
        EXPECT_TRUE(restored.endOfInput());
        expectTree(dest.path(), "gnu", nullptr);
    }
}

TEST(TarSink, CheckpointsThatNoLongerFitAreRefused)
{
    qvtest::ScratchDir root(L"tar-refused");
    const std::wstring dest = root / L"dest";
    CreateDirectoryW(dest.c_str(), nullptr);
    TARStreamWriterImp sink(dest.c_str());
    ASSERT_TRUE(feed(sink, TarBuilder().file("data.bin", std::string(4000, 'd')).bytes(), 512, 0, 2560));
    std::string record = saveRecord(sink), shorter = record.substr(0, record.size() - 1);
    const_cast<StreamStateHeader*>(asRecord(shorter))->size = static_cast<uint32_t>(shorter.size());
    EXPECT_FALSE(TARStreamWriterImp().restoreState(asRecord(shorter)));
    EXPECT_FALSE(TARStreamWriterImp().restoreState(nullptr));
    sink.close();
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\data.bin", "short")); // the entry's file lost bytes: a hole would follow
    EXPECT_FALSE(TARStreamWriterImp().restoreState(asRecord(record)));

    // A damaged checkpoint once named the sibling "des": extraction must stay where the job put it.
    TARStreamWriterImp elsewhere((root / L"des").c_str());
    EXPECT_FALSE(sink.unpacker()->restoreState(asRecord(saveRecord(*elsewhere.unpacker()))));
    EXPECT_EQ(dest, sink.unpacker()->destinationFolder());
    std::wstring upper = dest + L"\\"; // the same folder written another way is this download's own
    for (wchar_t& c : upper)
        c = static_cast<wchar_t>(std::towupper(c));
    TARStreamWriterImp same(upper.c_str());
    EXPECT_TRUE(sink.unpacker()->restoreState(asRecord(saveRecord(*same.unpacker()))));
    EXPECT_EQ(dest, sink.unpacker()->destinationFolder());
}
