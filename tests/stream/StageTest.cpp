// The stages on their own: path helpers, the LZMA2 decoder on xz's output, the file sink's resume, and
// what the HTTP source keeps without a server.
#include <gtest/gtest.h>

#include <functional>

#include "TarTestSupport.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/PathUtil.h"
#include "support/TestServers.h"

using namespace tartest;

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
    const auto write = [](GenericFileStreamWriterImp& sink, const std::string& b) {
        return sink.writeBytes(reinterpret_cast<const uint8_t*>(b.data()), static_cast<uint32_t>(b.size()));
    };
    const std::string before = qvtest::patternBytes(300000, 11), after = qvtest::patternBytes(70000, 13);
    ASSERT_TRUE(qvtest::writeFile(path, "read-only leftovers") && SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    std::string checkpoint;
    {
        GenericFileStreamWriterImp sink(path.c_str()); // clears the attribute and starts the file anew
        ASSERT_EQ(static_cast<int64_t>(before.size()), write(sink, before));
        EXPECT_EQ(16u, (checkpoint = saveRecord(sink)).size());
        EXPECT_EQ(before.size(), qv::fileSize(path)) << "the saved length is on disk once the checkpoint is taken";
        write(sink, std::string(4096, 'x')); // written after the checkpoint: lost
    }
    GenericFileStreamWriterImp resumed(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    ASSERT_TRUE(resumed.restoreState(asRecord(checkpoint)));
    EXPECT_EQ(static_cast<int64_t>(after.size()), write(resumed, after));
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
