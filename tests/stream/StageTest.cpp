// The stages on their own: path helpers, the LZMA2 decoder on xz's output, the file sink's resume, what the
// HTTP source keeps without a server, and the tar sink on archives built entry by entry (hostile ones too),
// archives of GNU tar in any chunking and checkpoints taken mid-entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <functional>
#include <numeric>

#include "QvDLMCodes.h"
#include "TarTestSupport.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/PathUtil.h"
#include "stream/TARStreamWriterImp.h"
#include "support/TestServers.h"

using namespace tartest;
using namespace qvdlm::tarerror;

namespace {

std::wstring drivePath(size_t length) // C:\ddd...\d of exactly length units
{
    std::wstring path = L"C:";
    while (path.size() < length)
        path += L"\\" + std::wstring(std::max<size_t>(1, std::min<size_t>(50, length - path.size() - 1)), L'd');
    return path;
}

const std::string& gnuTar() { static const std::string bytes = contents(workFolder(L"tar-archives\\gnu.tar")); return bytes; }
std::string package(const wchar_t* name) { return contents(qvtest::wwwDir() + L"\\" + name); }
// Files of the tree that a handle still holds: a file committed and closed opens exclusively.
size_t heldFiles(const std::wstring& root)
{
    size_t held = 0;
    for (const auto& [path, entry] : readTree(root))
        held += !entry.folder && !qv::UniqueFile(CreateFileW((root + L"\\" + qvtest::widen(path)).c_str(), GENERIC_READ, 0,
                                                             nullptr, OPEN_EXISTING, 0, nullptr));
    return held;
}

// Feeds input as the middle thread does: a write, then reads until nothing comes. The SDK's status of
// the first failure, else of the end of input when atEnd, else 0.
uint32_t decode(LZMA2StreamWriterImp& stage, std::string_view in, size_t chunk, uint32_t capacity, std::string& out, bool atEnd)
{
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(capacity);
    for (size_t at = 0; at < in.size(); at += chunk) {
        if (stage.writeBytes(reinterpret_cast<const uint8_t*>(in.data() + at), static_cast<uint32_t>(std::min(chunk, in.size() - at))) < 0)
            return stage.lastStatus();
        for (uint32_t got = 1, reads = 0; got > 0 && reads < (1u << 24); ++reads) {
            EXPECT_LE(got = reader->readBytes(slot.data(), capacity), capacity);
            out.append(reinterpret_cast<const char*>(slot.data()), std::min(got, capacity));
            if (reader->lastStatus() != 0)
                return stage.lastStatus();
        }
    }
    return atEnd && !stage.endOfInput() ? stage.lastStatus() : 0;
}

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
    const auto rec = [](const std::string& key, const std::string& value) { // one extended header record
        const std::string tail = " " + key + "=" + value + "\n";
        size_t n = tail.size() + 1;
        while (std::to_string(n).size() + tail.size() != n)
            ++n;
        return std::to_string(n) + tail;
    };
    const auto pax = [](const std::string& text) { return TarBuilder().entry("PaxHeaders/e", 'x', text); };
    const auto sized = [](const std::string& field, const std::string& data) { // a size field as written, resealed
        std::string b = headerBlock("z.txt", '0', 0).replace(124, 12, field).replace(148, 8, 8, ' ');
        char sum[8];
        std::snprintf(sum, sizeof sum, "%06o", std::accumulate(b.begin(), b.end(), 0u, [](unsigned t, char c) { return t + static_cast<uint8_t>(c); }));
        return b.replace(148, 7, sum, 7) + data + TarBuilder().file("after.txt", "after").bytes();
    };
    std::string holes = std::string(10, 'a') + std::string(502, '\0') + std::string(20, 'b') + std::string(492, '\0');
    return {
        {"sizes around whole blocks", TarBuilder().folder("d/").file("d/0", "").file("d/511", std::string(511, '5'))
             .file("d/512", std::string(512, '2')).file("d/513", std::string(513, '3')).file("after", "after").bytes(), 0,
         {{"d/0", ""}, {"d/511", std::string(511, '5')}, {"d/513", std::string(513, '3')}, {"after", "after"}}},
        {"long name replaces the next header's name", TarBuilder().longText('L', longName).entry("cut", '0', "long")
             .file("next.txt", "n").bytes(), 0, {{longName, "long"}, {"cut", kAbsent}, {"next.txt", "n"}}},
        {"zero typeflag skipped, its data read as headers", TarBuilder().entry("old.txt", '\0', inner).bytes(), 0,
         {{"old.txt", kAbsent}, {"inner.txt", "from the data"}}},
        {"labels, pax records and devices make nothing", TarBuilder().entry("VOLUME", 'V').entry("Pax/x", 'x', records)
             .entry("dev/null", '3').file("plain.txt", "plain").bytes(), 0, {{"plain.txt", "plain"}, {"dev", kAbsent}}},
        {"hard links, with long link names", TarBuilder().file("o.txt", "shared").hardLink("l.txt", "o.txt").file(longTarget, "far")
             .hardLink("l2.txt", longTarget).bytes(), 0, {{"l.txt", "shared"}, {"l2.txt", "far"}}},
        {"GNU folder listing, contiguous file", TarBuilder().entry("dd/", 'D', std::string("Nf\0\0", 4)).entry("c.bin", '7', "contiguous").bytes(), 0,
         {{"dd", ""}, {"c.bin", "contiguous"}}}, {"continued from another volume", TarBuilder().entry("m", 'M', "x").bytes(), BadHeader, {}},
        {"regular entry named like a folder", TarBuilder().file("old/", "").file("old/in.txt", "in").bytes(), 0, {{"old/in.txt", "in"}}},
        {"concatenated archives go on, other bytes after the end are left", TarBuilder().file("a.txt", "a").bytes() +
             TarBuilder().file("b.txt", "b").bytes() + appended + TarBuilder().file("c.txt", "c").bytes(), 0,
         {{"a.txt", "a"}, {"b.txt", "b"}, {"c.txt", kAbsent}}},
        {"header without a checksum", unsummed, 0, {{"unsummed.txt", "abc"}}},
        {"header with a wrong checksum", damaged, BadHeader, {{"x.txt", kAbsent}, {"y.txt", kAbsent}}},
        {"extended records name, link and time the next entry", pax(rec("path", longName) + rec("mtime", "1234567890.5") + rec("uname", "u"))
             .file("cut", "paxed").entry("g", 'g', rec("comment", "c")).entry("x", 'x', rec("linkpath", longName)).hardLink("h", "cut").bytes(), 0,
         {{longName, "paxed"}, {"cut", kAbsent}, {"h", "paxed"}}},
        {"records out of shape", pax("30 path=x\n").file("f", "f").bytes(), BadHeader, {{"f", kAbsent}}}, {"", pax("9 pathxx\n").bytes(), BadHeader, {}},
        {"", pax("x path=x\n").bytes(), BadHeader, {}}, {"", pax("6 =xx\n").bytes(), BadHeader, {}}, {"", pax("5 a=x ").bytes(), BadHeader, {}},
        {"", pax(rec("size", "12a")).bytes(), BadHeader, {}}, {"", pax(rec("path", "p")).bytes(false), Truncated, {}},
        {"size fields: NULs then digits read 0, GNU binary", sized(std::string("\0\0\0\0\0\0\0\0016\0\0\0", 12), ""), 0, {{"z.txt", ""}, {"after.txt", "after"}}},
        {"", sized(std::string("\x80\0\0\0\0\0\0\0\0\0\0\5", 12), std::string("hello").append(507, '\0')), 0, {{"z.txt", "hello"}}},
        {"", sized(std::string("0000000001x", 12), ""), BadHeader, {{"after.txt", kAbsent}}},
        {"sparse file of version 0.1", pax(rec("GNU.sparse.size", "1000") + rec("GNU.sparse.map", "0,10,600,20")).file("s", holes).bytes(), 0,
         {{"s", std::string(10, 'a') + std::string(590, '\0') + std::string(20, 'b') + std::string(380, '\0')}}},
        {"sparse maps that do not hold", pax(rec("GNU.sparse.size", "1000") + rec("GNU.sparse.map", "600,10,0,20")).file("s", holes).bytes(), BadHeader, {}},
        {"", pax(rec("GNU.sparse.size", "100") + rec("GNU.sparse.map", "0,10,600,20")).file("s", holes).bytes(), BadHeader, {}},
        {"", pax(rec("GNU.sparse.size", "1000") + rec("GNU.sparse.map", "0,10")).file("s", holes).bytes(), BadHeader, {}},
        {"", pax(rec("GNU.sparse.major", "1") + rec("GNU.sparse.minor", "0") + rec("GNU.sparse.realsize", "9")).file("s", "3\n0\n1\n").bytes(), BadHeader, {}},
        {"random bytes", qvtest::patternBytes(65536, 99), BadHeader, {}},
        {"hard link to a missing file", hard("missing.txt"), HardLink, {}},
        {"file on a folder", TarBuilder().folder("t/").file("t", "x").bytes(), FileOpen, {}}, {"folder on a file", TarBuilder().file("t", "x").folder("t/").bytes(), Folder, {}},
        {"overlong long name", headerBlock("././@LongLink", 'L', 1u << 20), NameConversion, {}},
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
        {"extended names that leave", pax(rec("path", "../evil.txt")).file("fine.txt", "x").bytes(), FileOpen, {{"fine.txt", kAbsent}}},
        {"", pax(rec("GNU.sparse.name", "../evil.txt") + rec("GNU.sparse.map", "0,10") + rec("GNU.sparse.size", "10")).file("s", "x").bytes(), FileOpen, {}},
        {"", pax(rec("linkpath", "../bait.txt")).hardLink("h.txt", "fine").bytes(), HardLink, {}},
        {"", pax(rec("linkpath", "../../x")).symLink("s", "fine").bytes(), SymbolicLink, {}},
        {"file that climbs out through a link made before", TarBuilder().symLink("s", "inner").file("s/../../evil.txt", "e").bytes(),
         FileOpen, {}},
    };
}

} // namespace

TEST(PathHelpers, PathsTakeTheFormTheFileSystemAccepts)
{
    const struct {
        std::wstring in, out; // out empty: refused with code
        uint32_t code;
    } rows[] = {{L"C:\\folder\\file.bin", L"C:\\folder\\file.bin", 0}, {L"C:\\a\\.\\b\\..\\c/d.txt", L"C:\\a\\c\\d.txt", 0},
                {L"\\\\?\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0}, {L"\\\\.\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0},
                {L"\\\\.\\PhysicalDrive0", L"", 161}, {L"\\\\?\\Volume{0}\\x", L"", 161},
                {L"\\\\server\\share\\f.bin", L"\\\\?\\UNC\\server\\share\\f.bin", 0},
                {L"\\\\?\\UNC\\server\\share\\f.bin", L"\\\\?\\UNC\\server\\share\\f.bin", 0}, {L"\\\\?\\UNC\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0},
                {drivePath(248), drivePath(248), 0}, {drivePath(249), L"\\\\?\\" + drivePath(249), 0},
                {drivePath(1000), L"\\\\?\\" + drivePath(1000), 0}, {L"\\\\?\\" + drivePath(300), L"\\\\?\\" + drivePath(300), 0},
                {L"", L"", ERROR_INVALID_NAME}};
    for (const auto& row : rows) {
        std::wstring path = row.in;
        EXPECT_EQ(!row.out.empty(), qv::toLongPath(path)) << qvtest::narrow(row.in);
        EXPECT_EQ(row.out.empty() ? path : row.out, path);
        EXPECT_EQ(row.code, qv::normalizePath(path = row.in)) << qvtest::narrow(row.in);
    }
    // Substituted drives are followed to their end before any prefix is added.
    const std::wstring drives[][4] = {{L"Q:", L"C:\\target", L"Q:" + drivePath(246).substr(2), L"\\\\?\\C:\\target" + drivePath(246).substr(2)},
                                      {L"R:", L"Q:\\middle", L"r:\\leaf.txt", L"C:\\target\\middle\\leaf.txt"}};
    for (const auto& d : drives)
        ASSERT_TRUE(DefineDosDeviceW(0, d[0].c_str(), d[1].c_str()));
    for (const auto& d : drives)
        EXPECT_TRUE([](std::wstring path, const std::wstring& e) { return qv::toLongPath(path) && path == e; }(d[2], d[3]));
    for (const auto& d : drives)
        DefineDosDeviceW(DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE, d[0].c_str(), d[1].c_str());
}

TEST(PathHelpers, DeepNamesGetTheirFoldersAndExist)
{
    qvtest::ScratchDir dir(L"path-long");
    std::wstring out, name = L"n";
    ASSERT_TRUE(qv::preparePath(dir.path(), L"x/y\\z.txt", out));
    EXPECT_EQ(0u, out.rfind(dir.path(), 0));
    while (name.size() < 400)
        name += L"\\" + std::wstring(50, L'p');
    ASSERT_TRUE(qv::preparePath(dir.path(), name + L"\\leaf.bin", out));
    EXPECT_EQ(0u, out.rfind(L"\\\\?\\", 0));
    EXPECT_EQ(4, GenericFileStreamWriterImp(out.c_str()).writeBytes(reinterpret_cast<const uint8_t*>("leaf"), 4));
    EXPECT_TRUE(qv::pathExists(out) && qv::fileSize(out) == 4);
    EXPECT_FALSE(qv::pathExists(out.substr(4))) << "a long path without its prefix never exists";
    EXPECT_FALSE(qv::preparePath(L"\\\\.\\PhysicalDrive0", L"x", out));
}

TEST(Lzma2Stage, DecodesXzOutputInAnyChunkingAndEndsBadStreamsWithTheSdksCode)
{
    const std::string packed = package(L"pipeline-gnu.tar.lzma2"), big = package(L"pipeline-gnu8m.tar.lzma2");
    const size_t n = packed.size();
    const struct {
        const char* what;
        std::string bytes;
        size_t chunk;
        uint32_t capacity, code;
    } rows[] = {{"in bytes", packed, 1, 4 << 20, SZ_OK}, {"into small slots", packed, 65537, 13, SZ_OK},
                {"8 MiB dictionary", big, 4 << 20, 4096, SZ_OK}, {"bytes after the end mark", packed + "trailing", 4097, 4 << 20, SZ_OK},
                {"property byte of no dictionary", "\x29" + packed.substr(1), 30000, 4 << 20, SZ_ERROR_UNSUPPORTED},
                {"dictionary too small for the stream", std::string(1, '\0') + packed.substr(1), 30000, 4 << 20, SZ_ERROR_DATA},
                {"control byte of no kind", packed.substr(0, 1) + "\x03" + packed.substr(2), 30000, 4 << 20, SZ_ERROR_DATA},
                {"nothing but the property byte", packed.substr(0, 1), 30000, 4 << 20, SZ_ERROR_INPUT_EOF}, {"cut inside the first chunk header", packed.substr(0, 4), 30000, 4 << 20, SZ_ERROR_INPUT_EOF},
                {"cut mid-stream", packed.substr(0, n / 2), 30000, 4 << 20, SZ_ERROR_INPUT_EOF}, {"only the end mark missing", packed.substr(0, n - 1), 30000, 4 << 20, SZ_ERROR_INPUT_EOF}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        LZMA2StreamWriterImp stage;
        std::string out;
        EXPECT_EQ(row.code, decode(stage, row.bytes, row.chunk, row.capacity, out, true));
        EXPECT_TRUE(row.code == SZ_OK ? out == gnuTar() : gnuTar().compare(0, out.size(), out) == 0) << out.size();
        EXPECT_TRUE(row.code == SZ_OK || row.code == SZ_ERROR_INPUT_EOF || // a failed stage takes nothing more
                    (stage.writeBytes(reinterpret_cast<const uint8_t*>(packed.data()), 4) < 0 && stage.saveState(nullptr, nullptr) == 0));
    }
}

TEST(Lzma2Stage, CheckpointRestoredIntoAFreshStageContinuesByteIdentical)
{
    EXPECT_EQ(0u, LZMA2StreamWriterImp().saveState(nullptr, nullptr)) << "nothing to save before the decoder exists";
    for (const wchar_t* name : {L"pipeline-gnu.tar.lzma2", L"pipeline-gnu8m.tar.lzma2"}) {
        const std::string packed = package(name);
        for (size_t cut : {size_t{1}, size_t{4}, packed.size() * 5 / 9}) {
            SCOPED_TRACE(qvtest::narrow(name) + " cut " + std::to_string(cut));
            std::string out, record;
            {
                LZMA2StreamWriterImp first;
                ASSERT_EQ(0u, decode(first, std::string_view(packed).substr(0, cut), 40000, 4 << 20, out, false));
                record = saveRecord(first);
            }
            ASSERT_EQ(record.size(), asRecord(record)->size);
            LZMA2StreamWriterImp restored; // reads no second property byte
            ASSERT_TRUE(restored.restoreState(asRecord(record)));
            EXPECT_EQ(0u, decode(restored, std::string_view(packed).substr(cut), 50000, 4 << 20, out, true));
            EXPECT_TRUE(out == gnuTar());
        }
    }
    // Records that do not fit this build or this stream are refused.
    const std::string packed = package(L"pipeline-gnu.tar.lzma2");
    std::string out;
    LZMA2StreamWriterImp first;
    ASSERT_EQ(0u, decode(first, std::string_view(packed).substr(0, packed.size() / 2), 65536, 4 << 20, out, false));
    const std::string good = saveRecord(first);
    using Head = LZMA2StreamWriterImp::StateHeader;
    const std::function<void(Head&, CLzma2Dec&)> damages[] = {
        [](Head& h, CLzma2Dec&) { --h.size; }, [](Head& h, CLzma2Dec&) { h.decoderBytes = 168; }, // another SDK layout
        [](Head&, CLzma2Dec& d) { d.decoder.dicBufSize -= 4096; }, [](Head&, CLzma2Dec& d) { d.decoder.dicPos = d.decoder.dicBufSize + 1; }};
    for (const auto& damage : damages) {
        std::string record = good;
        damage(*reinterpret_cast<Head*>(record.data()), *reinterpret_cast<CLzma2Dec*>(record.data() + sizeof(Head)));
        LZMA2StreamWriterImp stage;
        EXPECT_FALSE(stage.restoreState(asRecord(record)) || stage.initialised()) << &damage - damages;
    }
    EXPECT_FALSE(LZMA2StreamWriterImp().restoreState(nullptr));
    EXPECT_TRUE(LZMA2StreamWriterImp().restoreState(asRecord(good)));
}

TEST(FileSink, ResumesExactlyAtTheCheckpointedLength)
{
    qvtest::ScratchDir dir(L"file-sink");
    const std::wstring path = dir / L"resume.bin";
    const std::string before = qvtest::patternBytes(300000, 11), after = qvtest::patternBytes(70000, 13);
    ASSERT_TRUE(qvtest::writeFile(path, "read-only leftovers") && SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    std::string checkpoint;
    {
        GenericFileStreamWriterImp sink(path.c_str()); // clears the attribute and starts the file anew
        ASSERT_TRUE(feed(sink, before, 1 << 20));
        EXPECT_EQ(16u, (checkpoint = saveRecord(sink)).size());
        EXPECT_EQ(before.size(), qv::fileSize(path)) << "the saved length is on disk once the checkpoint is taken";
        feed(sink, std::string(4096, 'x'), 4096); // written after the checkpoint: lost
    }
    GenericFileStreamWriterImp resumed(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    ASSERT_TRUE(resumed.restoreState(asRecord(checkpoint)));
    EXPECT_TRUE(feed(resumed, after, 1 << 20));
    resumed.close();
    EXPECT_TRUE(contents(path) == before + after);

    ASSERT_TRUE(qvtest::writeFile(path, std::string(100, 'q')));
    GenericFileStreamWriterImp shorter(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    FileSinkState beyond{16, 0, 101}, cut{15, 0, 0};
    EXPECT_FALSE(shorter.restoreState(reinterpret_cast<StreamStateHeader*>(&beyond))) << "the file is shorter";
    EXPECT_FALSE(shorter.restoreState(reinterpret_cast<StreamStateHeader*>(&cut)));
    EXPECT_EQ(100u, qv::fileSize(path)) << "nothing is made up";
}

TEST(HttpSource, CracksUrlsSetsTimeoutsAndKeepsItsRecord)
{
    HTTPStreamImp cut((L"http://localhost:1/" + std::wstring(5000, L'p')).c_str(), 0, 0);
    EXPECT_FALSE(cut.urlCracked() || cut.open(true)) << "a URL that did not crack is never requested";
    HTTPStreamImp stream(L"http://localhost/", 77, 123456789012LL);
    stream.setTimeouts(90000);
    EXPECT_TRUE(stream.connectTimeout() == 60000 && stream.receiveTimeout() == 30000 && stream.sendTimeout() == 30000);
    stream.setTimeouts(10000);
    EXPECT_TRUE(stream.connectTimeout() == 10000 && stream.receiveTimeout() == 5000 && stream.sendTimeout() == 5000);
    std::string record = saveRecord(stream);
    HTTPStreamImp restored(L"http://localhost/", 0, 0);
    ASSERT_TRUE(record.size() == 24 && restored.restoreState(asRecord(record)));
    EXPECT_TRUE(restored.position() == 123456789012LL && restored.dataStart() == 77);
    const_cast<StreamStateHeader*>(asRecord(record))->size = 23;
    EXPECT_FALSE(restored.restoreState(asRecord(record)));
}

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
        ASSERT_TRUE(feed(sink, contents(workFolder(L"tar-archives\\" + qvtest::widen(format) + L".tar")), chunk)) << std::hex << sink.lastStatus();
        EXPECT_TRUE(sink.endOfInput());
        EXPECT_EQ(0u, heldFiles(dest.path())) << "every file committed and closed before the package completes";
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
    const auto archive = [](const std::string& format) { return contents(workFolder(L"tar-archives\\" + qvtest::widen(format) + L".tar")); };
    const std::string gnu = gnuTar(), posix = archive("x-posix"), pax1 = archive("x-posix-sparse"), old = archive("x-gnu-sparse"), pax0 = archive("x-sparse00");
    const size_t longName = gnu.find("././@LongLink"), pathRecord = posix.find("path=./kkk") / 512 * 512 + 512;
    const size_t map = pax1.find("GNUSparseFile") - 2, holes = old.find("./holes.bin");
    ASSERT_TRUE(longName != std::string::npos && map < pax1.size() && holes < old.size() && pax0.find("GNU.sparse.size") < pax0.size());
    const struct { std::string format; size_t cut; } rows[] = { // inside a long name, a data block, extended records, sparse maps and data
        {"gnu", 7777}, {"gnu", longName + 100}, {"gnu", longName + 512 + 300}, {"gnu", gnu.size() / 2 + 4097}, {"gnu", gnu.size() - 10243},
        {"x-posix", pathRecord - 300}, {"x-posix", pathRecord + 100}, {"x-sparse00", pax0.find("GNU.sparse.size") + 600},
        {"x-posix-sparse", map - 20}, {"x-posix-sparse", map + 512 + 20}, {"x-posix-sparse", map + 1024 + 70000},
        {"x-gnu-sparse", holes + 600}, {"x-gnu-sparse", holes + 1024 + 4096}, {"x-gnu-sparse", holes + 1024 + 70000}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format + " " + std::to_string(row.cut));
        const std::string bytes = row.format == "gnu" ? gnu : archive(row.format);
        qvtest::ScratchDir dest(L"tar-checkpoint");
        std::string record;
        {
            TARStreamWriterImp first(dest.path().c_str());
            ASSERT_TRUE(feed(first, bytes, 65536, 0, row.cut));
            record = saveRecord(first);
            EXPECT_LE(heldFiles(dest.path()), 1u) << "only the entry being written stays open across a checkpoint";
            ASSERT_TRUE(feed(first, bytes, 65536, row.cut, row.cut + 300000)); // lost with the process
        }
        TARStreamWriterImp restored;
        ASSERT_TRUE(restored.restoreState(asRecord(record)));
        ASSERT_TRUE(feed(restored, bytes, 4 << 20, row.cut)) << std::hex << restored.lastStatus();
        EXPECT_TRUE(restored.endOfInput());
        expectTree(dest.path(), row.format, nullptr);
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
    std::string first = record; // as written before extended headers were read: no second fixed part, tag "TAR1"
    first.erase(1120, 48).replace(4, 4, "TAR1");
    const_cast<StreamStateHeader*>(asRecord(first))->size = static_cast<uint32_t>(first.size());
    TARStreamWriterImp older;
    EXPECT_TRUE(older.restoreState(asRecord(first)) && feed(older, TarBuilder().file("data.bin", std::string(4000, 'd')).bytes(), 512, 2560) &&
                older.endOfInput());
    older.close();
    EXPECT_EQ(contents(dest + L"\\data.bin"), std::string(4000, 'd'));
    sink.close();
    ASSERT_TRUE(qvtest::writeFile(dest + L"\\data.bin", "short")); // the entry's file lost bytes: a hole would follow
    EXPECT_FALSE(TARStreamWriterImp().restoreState(asRecord(record)));

    // A damaged checkpoint once named the sibling "des": extraction must stay where the job put it.
    TARStreamWriterImp elsewhere((root / L"des").c_str());
    EXPECT_FALSE(sink.unpacker()->restoreState(asRecord(saveRecord(*elsewhere.unpacker()))));
    EXPECT_EQ(dest, sink.unpacker()->destinationFolder());
    std::wstring upper = dest + L"\\"; // the same folder written another way is this download's own
    std::transform(upper.begin(), upper.end(), upper.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towupper(c)); });
    TARStreamWriterImp same(upper.c_str());
    EXPECT_TRUE(sink.unpacker()->restoreState(asRecord(saveRecord(*same.unpacker()))));
    EXPECT_EQ(dest, sink.unpacker()->destinationFolder());
}
