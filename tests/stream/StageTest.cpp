// The stages on their own: path helpers, the LZMA2 decoder on xz's output, the file sink's resume,
// and what the HTTP source keeps without a server.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>

#include "TarTestSupport.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/PathUtil.h"
#include "support/TestServers.h"
#include "support/TestSupport.h"

namespace {

std::wstring drivePath(size_t length) // C:\ddd...\d of exactly length units
{
    std::wstring path = L"C:";
    while (path.size() < length)
        path += L"\\" + std::wstring(std::max<size_t>(1, std::min<size_t>(50, length - path.size() - 1)), L'd');
    return path;
}

std::string served(const std::wstring& name)
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(qvtest::wwwDir() + L"\\" + name, bytes)) << qvtest::narrow(name);
    return bytes;
}

const std::string& gnuTar()
{
    static const std::string bytes = [] {
        std::string b;
        EXPECT_TRUE(qvtest::readFile(tartest::workFolder(L"tar-archives\\gnu.tar"), b));
        return b;
    }();
    return bytes;
}

// Feeds input as the middle thread does: a write, then reads until nothing comes. The SDK's status
// of the first failure, 0 when none.
uint32_t decode(LZMA2StreamWriterImp& stage, std::string_view in, size_t chunk, uint32_t capacity, std::string& out)
{
    auto* reader = static_cast<StreamReader*>(stage.readerSide());
    std::vector<uint8_t> slot(capacity);
    for (size_t at = 0; at < in.size(); at += chunk) {
        const auto n = static_cast<uint32_t>(std::min(chunk, in.size() - at));
        if (stage.writeBytes(reinterpret_cast<const uint8_t*>(in.data() + at), n) < 0 || stage.lastStatus() != 0)
            return stage.lastStatus();
        for (uint32_t got = 1, reads = 0; got > 0 && reads < (1u << 24); ++reads) {
            got = reader->readBytes(slot.data(), capacity);
            EXPECT_LE(got, capacity);
            out.append(reinterpret_cast<const char*>(slot.data()), std::min(got, capacity));
            if (reader->lastStatus() != 0)
                return stage.lastStatus();
        }
    }
    return 0;
}

std::string saveRecord(Stream& stage)
{
    std::string record(stage.saveState(nullptr, nullptr), '\0');
    uint64_t capacity = record.size();
    stage.saveState(reinterpret_cast<StreamStateHeader*>(record.data()), &capacity);
    return record;
}
const StreamStateHeader* asRecord(const std::string& r) { return reinterpret_cast<const StreamStateHeader*>(r.data()); }

} // namespace

TEST(PathHelpers, PathsTakeTheFormTheFileSystemAccepts)
{
    const struct {
        std::wstring in, out; // out empty: refused
        uint32_t code;
    } rows[] = {{L"C:\\folder\\file.bin", L"C:\\folder\\file.bin", 0}, {L"C:\\a\\.\\b\\..\\c/d.txt", L"C:\\a\\c\\d.txt", 0},
                {L"\\\\?\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0}, {L"\\\\.\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0},
                {L"\\\\.\\PhysicalDrive0", L"", 161}, {L"\\\\.\\pipe\\name", L"", 161}, {L"\\\\?\\Volume{0}\\x", L"", 161},
                {L"\\\\server\\share\\f.bin", L"\\\\?\\UNC\\server\\share\\f.bin", 0},
                {L"\\\\?\\UNC\\server\\share\\f.bin", L"\\\\?\\UNC\\server\\share\\f.bin", 0},
                {L"\\\\?\\UNC\\C:\\f\\x.bin", L"C:\\f\\x.bin", 0}, {drivePath(248), drivePath(248), 0},
                {drivePath(249), L"\\\\?\\" + drivePath(249), 0}, {drivePath(1000), L"\\\\?\\" + drivePath(1000), 0},
                {L"\\\\?\\" + drivePath(300), L"\\\\?\\" + drivePath(300), 0}, {L"", L"", ERROR_INVALID_NAME}};
    for (const auto& row : rows) {
        std::wstring path = row.in;
        EXPECT_EQ(!row.out.empty(), qv::toLongPath(path)) << qvtest::narrow(row.in);
        EXPECT_EQ(row.out.empty() ? path : row.out, path);
        path = row.in;
        EXPECT_EQ(row.code, qv::normalizePath(path)) << qvtest::narrow(row.in);
    }
    // Substituted drives are followed to their end before any prefix is added.
    const std::pair<std::wstring, std::wstring> drives[] = {
        {L"Q:", L"C:\\target"}, {L"R:", L"Q:\\middle"}, {L"S:", L"\\??\\UNC\\server\\share"}};
    for (const auto& [drive, target] : drives)
        ASSERT_TRUE(DefineDosDeviceW(drive == L"S:" ? DDD_RAW_TARGET_PATH : 0, drive.c_str(), target.c_str()));
    const std::pair<std::wstring, std::wstring> substituted[] = {
        {L"Q:" + drivePath(246).substr(2), L"\\\\?\\C:\\target" + drivePath(246).substr(2)},
        {L"r:\\leaf.txt", L"C:\\target\\middle\\leaf.txt"}, {L"S:\\f.bin", L"\\\\?\\UNC\\server\\share\\f.bin"}};
    for (auto [path, expected] : substituted) {
        EXPECT_TRUE(qv::toLongPath(path));
        EXPECT_EQ(expected, path);
    }
    for (const auto& [drive, target] : drives)
        DefineDosDeviceW((drive == L"S:" ? DDD_RAW_TARGET_PATH : 0) | DDD_REMOVE_DEFINITION | DDD_EXACT_MATCH_ON_REMOVE,
                         drive.c_str(), target.c_str());
}

TEST(PathHelpers, DeepNamesGetTheirFoldersAndExist)
{
    qvtest::ScratchDir dir(L"path-long");
    std::wstring out;
    ASSERT_TRUE(qv::preparePath(dir.path(), L"x/y\\z.txt", out));
    EXPECT_EQ(0u, out.rfind(dir.path(), 0));
    std::wstring name = L"n";
    while (name.size() < 400)
        name += L"\\" + std::wstring(50, L'p');
    ASSERT_TRUE(qv::preparePath(dir.path(), name + L"\\leaf.bin", out));
    EXPECT_EQ(0u, out.rfind(L"\\\\?\\", 0));
    ASSERT_TRUE(qvtest::writeFile(out, "leaf"));
    EXPECT_TRUE(qv::pathExists(out));
    EXPECT_EQ(4u, qv::fileSize(out));
    EXPECT_FALSE(qv::pathExists(out.substr(4))) << "a long path without its prefix never exists";
    EXPECT_FALSE(qv::preparePath(L"\\\\.\\PhysicalDrive0", L"x", out));
}

TEST(Lzma2Stage, DecodesXzOutputInAnyChunking)
{
    const struct {
        const wchar_t* package;
        size_t chunk;
        uint32_t capacity;
    } rows[] = {{L"pipeline-gnu.tar.lzma2", 1, 4 << 20}, {L"pipeline-gnu.tar.lzma2", 65537, 13},
                {L"pipeline-gnu8m.tar.lzma2", 4 << 20, 4096}, {L"pipeline-gnu8m.tar.lzma2", 4097, 4 << 20}};
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.package) + " " + std::to_string(row.chunk) + " " + std::to_string(row.capacity));
        const std::string packed = served(row.package);
        LZMA2StreamWriterImp stage;
        std::string out;
        EXPECT_EQ(0u, decode(stage, packed, row.chunk, row.capacity, out));
        EXPECT_TRUE(stage.endOfInput());
        EXPECT_EQ(static_cast<uint8_t>(packed[0]), stage.propertyByte());
        EXPECT_TRUE(out == gnuTar()) << out.size() << " of " << gnuTar().size();
    }
}

TEST(Lzma2Stage, BadStreamsEndWithTheSdksCode)
{
    const std::string packed = served(L"pipeline-gnu.tar.lzma2");
    const size_t n = packed.size();
    const struct {
        const char* what;
        std::string bytes;
        uint32_t code;
    } rows[] = {{"property byte of no dictionary", "\x29" + packed.substr(1), SZ_ERROR_UNSUPPORTED},
                {"property byte 0xFF", "\xFF" + packed.substr(1), SZ_ERROR_UNSUPPORTED},
                {"dictionary too small for the stream", std::string(1, '\0') + packed.substr(1), SZ_ERROR_DATA},
                {"control byte of no kind", packed.substr(0, 1) + "\x03" + packed.substr(2), SZ_ERROR_DATA},
                {"nothing but the property byte", packed.substr(0, 1), SZ_ERROR_INPUT_EOF},
                {"cut inside the first chunk header", packed.substr(0, 4), SZ_ERROR_INPUT_EOF},
                {"cut mid-stream", packed.substr(0, n / 2), SZ_ERROR_INPUT_EOF},
                {"only the end mark missing", packed.substr(0, n - 1), SZ_ERROR_INPUT_EOF},
                {"bytes after the end mark", packed + "trailing", SZ_OK}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        LZMA2StreamWriterImp stage;
        std::string out;
        uint32_t code = decode(stage, row.bytes, 30000, 1 << 20, out);
        if (code == 0 && !stage.endOfInput())
            code = stage.lastStatus();
        EXPECT_EQ(row.code, code);
        EXPECT_EQ(0, gnuTar().compare(0, out.size(), out)) << "only a prefix of the stream decodes";
        if (code != SZ_OK && code != SZ_ERROR_INPUT_EOF) {
            EXPECT_LT(stage.writeBytes(reinterpret_cast<const uint8_t*>(packed.data()), 4), 0) << "stays failed";
            EXPECT_EQ(0u, stage.saveState(nullptr, nullptr));
        }
    }
}

TEST(Lzma2Stage, CheckpointRestoredIntoAFreshStageContinuesByteIdentical)
{
    uint64_t capacity = 1;
    EXPECT_EQ(0u, LZMA2StreamWriterImp().saveState(nullptr, &capacity)) << "nothing to save before the decoder exists";
    for (const wchar_t* name : {L"pipeline-gnu.tar.lzma2", L"pipeline-gnu8m.tar.lzma2"}) {
        const std::string packed = served(name);
        for (size_t cut : {size_t{1}, size_t{4}, packed.size() * 5 / 9}) {
            SCOPED_TRACE(qvtest::narrow(name) + " cut " + std::to_string(cut));
            std::string out, record;
            {
                LZMA2StreamWriterImp first;
                ASSERT_EQ(0u, decode(first, std::string_view(packed).substr(0, cut), 40000, 4 << 20, out));
                record = saveRecord(first);
            }
            ASSERT_EQ(record.size(), asRecord(record)->size);
            LZMA2StreamWriterImp restored; // reads no second property byte
            ASSERT_TRUE(restored.restoreState(asRecord(record)));
            EXPECT_EQ(0u, decode(restored, std::string_view(packed).substr(cut), 50000, 4 << 20, out));
            EXPECT_TRUE(restored.endOfInput());
            EXPECT_TRUE(out == gnuTar());
        }
    }
}

TEST(Lzma2Stage, ForeignOrDamagedRecordsAreRefused)
{
    const std::string packed = served(L"pipeline-gnu.tar.lzma2");
    std::string out;
    LZMA2StreamWriterImp first;
    ASSERT_EQ(0u, decode(first, std::string_view(packed).substr(0, packed.size() / 2), 65536, 4 << 20, out));
    const std::string good = saveRecord(first);
    using Head = LZMA2StreamWriterImp::StateHeader;
    const std::function<void(Head&, CLzma2Dec&)> damages[] = {
        [](Head& h, CLzma2Dec&) { --h.size; }, [](Head& h, CLzma2Dec&) { h.stateVersion = 2; },
        [](Head& h, CLzma2Dec&) { h.decoderBytes = 168; }, [](Head& h, CLzma2Dec&) { h.decoderStatus = 5; },
        [](Head&, CLzma2Dec& d) { d.decoder.dicBufSize -= 4096; }, [](Head&, CLzma2Dec& d) { d.decoder.probs = nullptr; },
        [](Head&, CLzma2Dec& d) { d.decoder.dicPos = d.decoder.dicBufSize + 1; },
        [](Head&, CLzma2Dec& d) { d.decoder.state = 12; }, [](Head&, CLzma2Dec& d) { d.state = 10; }};
    for (const auto& damage : damages) {
        std::string record = good;
        Head h;
        CLzma2Dec d;
        std::memcpy(&h, record.data(), sizeof h);
        std::memcpy(&d, record.data() + sizeof h, sizeof d);
        damage(h, d);
        std::memcpy(record.data(), &h, sizeof h);
        std::memcpy(record.data() + sizeof h, &d, sizeof d);
        LZMA2StreamWriterImp stage;
        EXPECT_FALSE(stage.restoreState(asRecord(record))) << &damage - damages;
        EXPECT_FALSE(stage.initialised());
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
    FileSinkState checkpoint{};
    {
        GenericFileStreamWriterImp sink(path.c_str()); // clears the attribute and starts the file anew
        ASSERT_EQ(static_cast<int64_t>(before.size()), write(sink, before));
        uint64_t capacity = sizeof checkpoint;
        ASSERT_EQ(16u, sink.saveState(reinterpret_cast<StreamStateHeader*>(&checkpoint), &capacity));
        EXPECT_EQ(before.size(), qv::fileSize(path)) << "the saved length is on disk once the checkpoint is taken";
        write(sink, std::string(4096, 'x')); // written after the checkpoint: lost
    }
    GenericFileStreamWriterImp resumed(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    ASSERT_TRUE(resumed.restoreState(reinterpret_cast<StreamStateHeader*>(&checkpoint)));
    EXPECT_EQ(static_cast<int64_t>(after.size()), write(resumed, after));
    resumed.close();
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(path, bytes) && bytes == before + after);

    ASSERT_TRUE(qvtest::writeFile(path, std::string(100, 'q')));
    GenericFileStreamWriterImp shorter(path.c_str(), GenericFileStreamWriterImp::kKeepUntilRestored);
    FileSinkState beyond{16, 0, 101}, cut{15, 0, 0};
    EXPECT_FALSE(shorter.restoreState(reinterpret_cast<StreamStateHeader*>(&beyond))) << "the file is shorter";
    EXPECT_FALSE(shorter.restoreState(reinterpret_cast<StreamStateHeader*>(&cut)));
    EXPECT_EQ(100u, qv::fileSize(path)) << "nothing is made up";

    std::wstring deep = dir.path();
    while (deep.size() < 300)
        deep += L"\\" + std::wstring(40, L'f');
    std::wstring longPath;
    ASSERT_TRUE(qv::preparePath(deep, L"long.bin", longPath));
    GenericFileStreamWriterImp longSink(longPath.c_str());
    EXPECT_EQ(4, write(longSink, "long"));
}

TEST(HttpSource, CracksUrlsSetsTimeoutsAndKeepsItsRecord)
{
    const struct {
        std::wstring url, host;
        int port;
        const wchar_t *path, *extra;
        bool secure, cracked;
    } rows[] = {{L"downloads.quorvel.com/pkg/a.bin?x=1", L"downloads.quorvel.com", 80, L"/pkg/a.bin", L"?x=1", false, true},
                {L"https://www.quorvel.com:8443/a", L"www.quorvel.com", 8443, L"/a", L"", true, true},
                {L"https://www.quorvel.com/a?next=http://x/", L"www.quorvel.com", 443, L"/a", L"?next=http://x/", false, true},
                {L"http://localhost:1/" + std::wstring(5000, L'p'), L"localhost", 1, nullptr, nullptr, false, false},
                {L"http:///path-only", L"", 0, nullptr, nullptr, false, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.url.substr(0, 60)));
        HTTPStreamImp stream(row.url.c_str(), 0, 0);
        EXPECT_EQ(row.cracked, stream.urlCracked());
        if (!row.cracked) {
            EXPECT_EQ(nullptr, stream.open(true)) << "a URL that did not crack is never requested";
            EXPECT_NE(0u, stream.lastStatus());
            continue;
        }
        EXPECT_EQ(row.host, stream.hostName());
        EXPECT_EQ(row.port, stream.port());
        EXPECT_STREQ(row.path, stream.urlPath());
        EXPECT_STREQ(row.extra, stream.extraInfo());
        EXPECT_EQ(row.secure, stream.isSecure());
    }
    HTTPStreamImp stream(L"http://localhost/", 77, 123456789012LL);
    for (const auto& [set, connect, receive] : {std::tuple<uint32_t, uint32_t, uint32_t>{90000, 60000, 30000}, {10000, 10000, 5000}}) {
        stream.setTimeouts(set);
        EXPECT_EQ(connect, stream.connectTimeout());
        EXPECT_EQ(receive, stream.receiveTimeout());
        EXPECT_EQ(receive, stream.sendTimeout());
    }
    std::string record = saveRecord(stream);
    ASSERT_EQ(24u, record.size());
    HTTPStreamImp restored(L"http://localhost/", 0, 0);
    ASSERT_TRUE(restored.restoreState(asRecord(record)));
    EXPECT_EQ(123456789012LL, restored.position());
    EXPECT_EQ(77u, restored.dataStart());
    const_cast<StreamStateHeader*>(asRecord(record))->size = 23;
    EXPECT_FALSE(restored.restoreState(asRecord(record)));
}
