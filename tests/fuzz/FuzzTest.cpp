// Bad-input runs: damaged and hostile tar streams, LZMA2 packages, checkpoint records, request stores and
// URLs. One mutation loop serves all: each run draws from a seeded generator, prints its seeds, and must
// end cleanly with a clear code, never crash or hang, and never write outside its destination.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <memory>
#include <string>
#include <vector>

#include "QvDLM.h"
#include "control/DownloadImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/TARStreamWriterImp.h"
#include "support/FakeRequest.h"
#include "support/TestSupport.h"

namespace {

struct Rng : std::mt19937_64 { // the same sequence on every platform
    using std::mt19937_64::mt19937_64;
    uint64_t below(uint64_t n) { return n ? (*this)() % n : 0; }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <typename T, size_t N> const T& pick(const T (&items)[N]) { return items[below(N)]; }
};

// Runs body once per seed: the short list, QVDLM_FUZZ_ROUNDS seeds of the same sequence, or QVDLM_FUZZ_SEED alone.
template <typename Body> void forEachSeed(const char* label, uint64_t shortCount, Body body)
{
    const uint64_t one = std::wcstoull(qvtest::env(L"QVDLM_FUZZ_SEED").c_str(), nullptr, 0), rounds = std::wcstoull(qvtest::env(L"QVDLM_FUZZ_ROUNDS").c_str(), nullptr, 0);
    const uint64_t count = one ? 1 : rounds ? rounds : shortCount;
    std::printf("[fuzz] %s: %llu seeds from %llu\n", label, static_cast<unsigned long long>(count), static_cast<unsigned long long>(one ? one : 1000));
    for (uint64_t i = 0, seed = one ? one : 1000; i < count && !::testing::Test::HasFatalFailure(); ++i, seed += 7919) {
        SCOPED_TRACE(std::string(label) + " seed " + std::to_string(seed));
        Rng rng{seed};
        body(rng);
    }
}

enum Damage { Flips, Cut, Insert, Delete, Overwrite, DamageKinds };

// Damages bytes[from, to) in place; unit keeps insertions, deletions and cuts aligned (UTF-16 text).
Damage damage(std::string& bytes, Rng& rng, size_t from, size_t to, size_t unit = 1, int kind = -1)
{
    to = std::min(to, bytes.size());
    const Damage d = static_cast<Damage>(kind >= 0 ? kind : rng.below(DamageKinds));
    if (from >= to)
        return d;
    const size_t at = from + (rng.below(to - from)) / unit * unit, n = std::min<size_t>((1 + rng.below(64)) * unit, (to - at) / unit * unit);
    std::string noise(n, '\0');
    for (char& c : noise)
        c = static_cast<char>(rng());
    for (uint64_t i = 0, flips = d == Flips ? 1 + rng.below(8) : 0; i < flips; ++i)
        bytes[from + rng.below(to - from)] ^= static_cast<char>(1u << rng.below(8));
    d == Cut ? void(bytes.resize(at)) : d == Insert ? void(bytes.insert(at, noise)) : d == Delete ? void(bytes.erase(at, n))
    : d == Overwrite ? void(bytes.replace(at, std::min<size_t>(n, 32), noise.substr(0, 32))) : void();
    return d;
}

// --- tar streams ---------------------------------------------------------------------------------

std::string padded(std::string data) { return data.append((512 - data.size() % 512) % 512, '\0'); }

std::string header(const std::string& name, char type, uint64_t size, const std::string& link = "")
{
    std::string block(512, '\0');
    name.copy(block.data(), 100);
    link.copy(block.data() + 157, 100);
    std::snprintf(block.data() + 100, 8, "%07o", 0644u);
    std::snprintf(block.data() + 124, 12, "%011llo", static_cast<unsigned long long>(size));
    std::memcpy(block.data() + 257, "ustar\0" "00", 8);
    block[156] = type;
    block.replace(148, 8, "        ");
    std::snprintf(block.data() + 148, 8, "%06o", std::accumulate(block.begin(), block.end(), 0u, [](unsigned sum, char c) { return sum + static_cast<unsigned char>(c); }));
    return block;
}

// One entry; names and link targets over 100 bytes get GNU long-name records first.
std::string entry(const std::string& name, char type, const std::string& data = "", const std::string& link = "")
{
    auto longName = [](const std::string& text, char kind) { return text.size() > 100 ? header("././@LongLink", kind, text.size() + 1) + padded(text + '\0') : ""; };
    return longName(name, 'L') + longName(link, 'K') + header(name, type, data.size(), link) + padded(data);
}

// One extended header record, and an extended header of records.
std::string rec(const std::string& key, const std::string& value)
{
    const std::string tail = " " + key + "=" + value + "\n";
    size_t n = tail.size() + 1;
    while (std::to_string(n).size() + tail.size() != n)
        ++n;
    return std::to_string(n) + tail;
}
std::string paxed(const std::string& records) { return header("PaxHeaders/e", 'x', records.size()) + padded(records); }

// Every file and folder below root, as relative name and content ("/" ends a folder's name).
std::map<std::string, std::string> tree(const std::wstring& root, const std::string& prefix = "")
{
    std::map<std::string, std::string> out;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((root + L"\\*").c_str(), &data);
    for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = FindNextFileW(find, &data)) {
        const std::wstring name = data.cFileName;
        const std::string path = prefix + qvtest::narrow(name);
        if (name != L"." && name != L".." && (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            out.merge(tree(root + L"\\" + name, (out[path + "/"] = path + "/")));
        else if (name != L"." && name != L"..")
            qvtest::readFile(root + L"\\" + name, out[path]);
    }
    if (find != INVALID_HANDLE_VALUE)
        FindClose(find);
    return out;
}

// A scratch folder with a destination "dest" and neighbours that nothing may touch.
struct Sandbox {
    qvtest::ScratchDir root;
    std::wstring dest = root / L"dest";
    explicit Sandbox(const wchar_t* name) : root(name)
    {
        CreateDirectoryW((root / L"dest2").c_str(), nullptr);
        qvtest::writeFile(root / L"dest2\\keep.txt", "sibling");
        qvtest::writeFile(root / L"sentinel.txt", "parent");
    }
    void reset() const { qvtest::removeTree(dest); CreateDirectoryW(dest.c_str(), nullptr); }
    void expectUntouched() const
    {
        auto all = tree(root.path());
        for (auto it = all.begin(); it != all.end();)
            it = it->first.rfind("dest/", 0) == 0 ? all.erase(it) : std::next(it);
        ASSERT_EQ(all, (std::map<std::string, std::string>{{"dest2/", "dest2/"}, {"dest2/keep.txt", "sibling"}, {"sentinel.txt", "parent"}}));
        for (const auto& [name, content] : tree(dest))
            ASSERT_EQ(name.find("qvfuzz"), std::string::npos) << "hostile name extracted: " << name;
        for (const std::wstring& folder : {qvtest::workDir(), std::wstring(L"C:"), std::wstring(L"Z:")}) {
            WIN32_FIND_DATAW data;
            ASSERT_EQ(FindFirstFileW((folder + L"\\*qvfuzz*").c_str(), &data), INVALID_HANDLE_VALUE) << "escaped to " << qvtest::narrow(folder + L"\\" + data.cFileName);
        }
    }
};

bool feed(StreamWriter& sink, const std::string& bytes, size_t chunk)
{
    for (size_t at = 0; at < bytes.size(); at += chunk)
        if (sink.writeBytes(reinterpret_cast<const uint8_t*>(bytes.data() + at), static_cast<uint32_t>(std::min(chunk, bytes.size() - at))) < 0)
            return false;
    return true;
}

// Hands packed bytes to the decoder in pieces of random size, draining its output into sink (if any)
// after each; false on a failure.
bool decode(LZMA2StreamWriterImp& decoder, const std::string& packed, StreamWriter* sink, Rng& rng)
{
    auto* reader = static_cast<StreamReader*>(decoder.readerSide());
    std::vector<uint8_t> slot(65536);
    for (size_t at = 0, n = 0; at < packed.size(); at += n) {
        n = std::min<size_t>(1 + rng.below(70000), packed.size() - at);
        if (decoder.writeBytes(reinterpret_cast<const uint8_t*>(packed.data() + at), static_cast<uint32_t>(n)) < 0)
            return false;
        for (uint32_t got = 1, i = 0; got; ++i) {
            got = reader->readBytes(slot.data(), static_cast<uint32_t>(slot.size()));
            if (got > slot.size() || reader->lastStatus() || i > 100000 || (sink && got && sink->writeBytes(slot.data(), got) < 0))
                return false;
        }
    }
    return true;
}

std::string record(Stream& stage)
{
    uint64_t capacity = 0;
    const uint64_t size = stage.saveState(nullptr, &capacity);
    std::vector<uint64_t> buffer(static_cast<size_t>((size + 7) / 8));
    stage.saveState(reinterpret_cast<StreamStateHeader*>(buffer.data()), &(capacity = size));
    return std::string(reinterpret_cast<const char*>(buffer.data()), static_cast<size_t>(size));
}

} // namespace

TEST(Fuzz, HostileAndDamagedTarStreamsStayInsideTheDestination)
{
    // Names that climb out, are absolute, name a drive, device or stream; each carries the marker "qvfuzz".
    const char* const names[] = {"../qvfuzz-up", "../dest2/qvfuzz", "..\\dest2\\qvfuzz", "a/../../qvfuzz", "/qvfuzz-abs", "\\qvfuzz-abs", "C:\\qvfuzz",
                                 "C:qvfuzz", "Z:\\tmp\\qvfuzz", "qvfuzz:stream", "sub/qvfuzz:ads", "\\\\?\\C:\\qvfuzz", "\\\\.\\C:\\qvfuzz",
                                 "\\\\server\\share\\qvfuzz", "sub/.. /qvfuzz", "./../qvfuzz", "//qvfuzz", "CON", "sub/nul", "aux.txt", "COM1", "sub/CONOUT$",
                                 "d0/d1/d2/d3/d4/d5/d6/d7/d8/d9/d10/d11/d12/d13/d14/d15/d16/d17/d18/d19/d20/../../../../../../../../../../../../../../../../../../../../../../qvfuzz-long"};
    const char* const targets[] = {"../dest2/keep.txt", "../sentinel.txt", "/etc/passwd", "C:\\windows\\win.ini", "..", "x:stream", "..\\dest2\\keep.txt",
                                   "../../../../../../../../../../../../../../../../../../../../../../../../../../../../../../../../../../dest2/keep.txt"};
    Sandbox box(L"fuzz-tar");
    int refused = 0;
    forEachSeed("tar", 120, [&](Rng& rng) {
        std::string bytes, good;
        for (uint64_t i = 0, n = rng.below(4); i < n; ++i)
            bytes += rng.chance(30) ? entry("dir" + std::to_string(i), '5') : entry(good = "f" + std::to_string(i) + ".bin", '0', qvtest::patternBytes(rng.below(1500), 1));
        const std::string name = rng.pick(names), target = rng.pick(targets), record = rec("path", "p" + std::to_string(rng.below(1000)));
        const std::string badRecords[] = {"9" + record, record.substr(0, record.size() - 1) + " ", "x" + record.substr(1),
                                          record.substr(0, record.size() - 1), std::string(record).replace(record.find('='), 1, "_")};
        const int64_t real = static_cast<int64_t>(rng.below(2000)), beyond = real + 1 + static_cast<int64_t>(rng.below(100));
        const std::string map = rng.chance(50) ? std::to_string(beyond) + ",1" : "600,10,0,20"; // past the end, or descending
        const std::pair<std::string, uint32_t> hostile[] = {
            {entry(name, '0', "escaped"), qvdlm::tarerror::FileOpen}, {entry(name, '5'), qvdlm::tarerror::Folder},
            {entry("hl-out", '1', "", target), qvdlm::tarerror::HardLink}, {entry("sl-out", '2', "", target), qvdlm::tarerror::SymbolicLink},
            {entry("inward", '2', "", "sub") + entry("inward/../../qvfuzz-through", '0', "escaped"), qvdlm::tarerror::FileOpen},
            {header("second.bin", '0', 10).substr(0, 1 + rng.below(511)), qvdlm::tarerror::Truncated},
            {[] { auto b = header("second.bin", '0', 10); b[150] ^= 1; return b + std::string(1536, '\0'); }(), qvdlm::tarerror::BadHeader},
            {header("huge.bin", '0', 077777777777ull) + std::string(512 * (1 + rng.below(4)), 'y'), qvdlm::tarerror::Truncated},
            {header("././@LongLink", 'L', 5000) + std::string(512, 'n'), qvdlm::tarerror::Truncated},
            {entry("second.bin", '0', std::string(2000, 'd')).substr(0, 513 + rng.below(1999)), qvdlm::tarerror::Truncated},
            {paxed(rec("path", name)) + entry("cut", '0', "escaped"), qvdlm::tarerror::FileOpen},
            {paxed(rec("linkpath", target)) + entry("hl-out", '1', "", "x"), qvdlm::tarerror::HardLink},
            {paxed(rng.pick(badRecords)) + entry("f.bin", '0', "x"), qvdlm::tarerror::BadHeader},
            {paxed(rec("GNU.sparse.size", std::to_string(real)) + rec("GNU.sparse.map", map)) + entry("sp", '0', std::string(1024, 's')), qvdlm::tarerror::BadHeader},
            {paxed(rec("GNU.sparse.major", "1") + rec("GNU.sparse.minor", "0") + rec("GNU.sparse.realsize", std::to_string(real))) +
                 entry("GNUSparseFile.0/sp", '0', padded("1\n" + std::to_string(beyond) + "\n1\n") + "s"), qvdlm::tarerror::BadHeader},
            {"", 0},
        };
        const auto& [tail, code] = rng.pick(hostile);
        bytes += tail + (code == qvdlm::tarerror::Truncated ? "" : entry("after.bin", '0', "late") + std::string(1024, '\0')); // cut streams end there
        const bool damaged = rng.chance(25) && damage(bytes, rng, 0, bytes.size()) < DamageKinds;
        box.reset();
        auto sink = std::make_unique<TARStreamWriterImp>(box.dest.c_str());
        const bool ok = feed(*sink, bytes, rng.chance(50) ? 1 + rng.below(700) : 512 * (1 + rng.below(16))) && sink->endOfInput();
        const uint32_t status = sink->lastStatus();
        sink.reset();
        refused += !ok;
        EXPECT_TRUE(ok || (status & 0xFF000000u) == 0x28000000u) << std::hex << status;
        const auto extracted = tree(box.dest);
        EXPECT_TRUE(damaged || (status == code && (good.empty() || extracted.count(good)) && extracted.count("after.bin") == (code ? 0u : 1u)))
            << std::hex << status << " missing " << good << " or an entry past a refusal";
        box.expectUntouched();
    });
    EXPECT_GT(refused, 0);
}

// Records of the decoder and the tar sink saved in the middle of their input, damaged, and read back by a
// download job: what does not hold together (above all a record cut shorter than it claims) is refused, and
// a stage that did restore goes on without crashing, hanging or writing outside its folder. Then whole packages, damaged.
TEST(Fuzz, DamagedCheckpointRecordsAndPackagesAreRefusedOrGoOnSafely)
{
    Sandbox box(L"fuzz-checkpoint");
    const qvtest::ScratchDir records(L"fuzz-checkpoint-records");
    const std::wstring dir = records.path();
    auto* request = new FakeRequest(L"http://localhost:1/p.tar.lzma2");
    request->setCheckpointDir(dir.c_str());
    request->setCheckpointId(12);
    std::unique_ptr<DownloadImp> job(makeDownload(request, nullptr, JobEnvironment{}));
    auto load = [&](const wchar_t* stage, const std::string& bytes, Stream& into) {
        EXPECT_TRUE(qvtest::writeFile(dir + L"\\00000012_" + stage + L".chk", bytes));
        unsigned id = 0;
        return job->loadCheckpoint(stage, &id, &into) != 0;
    };
    Rng fixed{1};
    std::string packed;
    ASSERT_TRUE(qvtest::readFile(qvtest::workDir() + L"\\fuzz-package.tar.lzma2", packed) && packed.size() > 4096);
    const std::string archive = entry("sub/one.bin", '0', qvtest::patternBytes(3000, 1)) + entry(std::string(150, 'n'), '0', "long") +
                                             entry("sub/two.bin", '0', qvtest::patternBytes(5000, 2)) + std::string(1024, '\0');
    const size_t half = packed.size() / 2, cut = 512 + 700; // inside the data of sub/one.bin
    LZMA2StreamWriterImp first;
    ASSERT_TRUE(decode(first, packed.substr(0, half), nullptr, fixed));
    auto interrupted = [&] { // the destination as the interrupted run left it, and that run's record
        box.reset();
        TARStreamWriterImp sink(box.dest.c_str());
        EXPECT_TRUE(feed(sink, archive.substr(0, cut), 4096));
        return record(sink);
    };
    const std::string decoderRecord = record(first), sinkRecord = interrupted();
    {
        LZMA2StreamWriterImp stage; // the intact records restore and go on to the end
        ASSERT_TRUE(load(L"Lzma", decoderRecord, stage));
        EXPECT_TRUE(decode(stage, packed.substr(half), nullptr, fixed) && stage.endOfInput());
        TARStreamWriterImp sink(box.dest.c_str());
        ASSERT_TRUE(load(L"xTar", sinkRecord, sink));
        EXPECT_TRUE(feed(sink, archive.substr(cut), 1000) && sink.endOfInput());
        EXPECT_EQ(tree(box.dest)["sub/one.bin"], qvtest::patternBytes(3000, 1));
    }
    int refused = 0, failed = 0;
    forEachSeed("checkpoint", 120, [&](Rng& rng) {
        const bool lzma = rng.chance(50);
        std::string bytes = lzma ? decoderRecord : sinkRecord;
        const uint64_t kind = rng.below(7); // 6: the size field claims more than the file holds; 5: cut inside the fixed part or the tables
        uint32_t claimed = rng.chance(50) ? static_cast<uint32_t>(bytes.size() + 1 + rng.below(1u << 20)) : 0xFFFFFFFFu;
        if (kind == 6 || kind == 5)
            kind == 6 ? void(std::memcpy(bytes.data(), &claimed, 4)) : bytes.resize(static_cast<size_t>(4 + rng.below(bytes.size() - 4)));
        else // mostly the fixed part, where the fields are; sometimes anywhere
            damage(bytes, rng, 0, rng.chance(70) ? 2048 : bytes.size(), 1, static_cast<int>(kind));
        std::memcpy(&(claimed = 0), bytes.data(), std::min<size_t>(bytes.size(), 4));
        bool restored;
        if (lzma) {
            LZMA2StreamWriterImp stage;
            restored = load(L"Lzma", bytes, stage);
            EXPECT_TRUE(!restored || decode(stage, packed.substr(half), nullptr, rng) || stage.lastStatus() || stage.readerSide()->lastStatus());
        } else {
            interrupted();
            TARStreamWriterImp sink(box.dest.c_str());
            restored = load(L"xTar", bytes, sink);
            EXPECT_TRUE(!restored || (feed(sink, archive.substr(cut), 1 + rng.below(3000)) && sink.endOfInput()) ||
                        (sink.lastStatus() & 0xFF000000u) == 0x28000000u) << std::hex << sink.lastStatus();
        }
        EXPECT_FALSE(restored && claimed > bytes.size()) << "a record cut shorter than it claims was taken";
        refused += !restored;
        box.expectUntouched();
    });
    // Damaged whole packages through the decoder into the tar sink fail cleanly.
    forEachSeed("lzma", 30, [&](Rng& rng) {
        std::string bytes = packed;
        const bool intact = rng.chance(10), badProperty = !intact && rng.chance(15);
        const Damage d = intact || badProperty ? DamageKinds : damage(bytes, rng, 1, bytes.size());
        if (badProperty)
            bytes[0] = static_cast<char>(41 + rng.below(215)); // no dictionary size of LZMA2
        box.reset();
        auto decoder = std::make_unique<LZMA2StreamWriterImp>();
        auto sink = std::make_unique<TARStreamWriterImp>(box.dest.c_str());
        const bool done = decode(*decoder, bytes, sink.get(), rng) && decoder->endOfInput() && sink->endOfInput();
        EXPECT_TRUE(done || decoder->lastStatus() || decoder->readerSide()->lastStatus() || (sink->lastStatus() & 0xFF000000u) == 0x28000000u);
        sink.reset(), decoder.reset();
        failed += !done;
        EXPECT_TRUE(!intact || (done && tree(box.dest).count("three.txt")));
        EXPECT_TRUE(!(badProperty || d == Cut) || !done) << "a cut or unusable stream passed";
        EXPECT_TRUE(!badProperty || tree(box.dest).empty()) << "decoded with a bad property byte";
        box.expectUntouched();
    });
    EXPECT_TRUE(refused > 0 && failed > 0) << refused << " " << failed;
}

// Damaged request stores read back by a manager's restore: every request whose section is intact comes back once.
TEST(Fuzz, DamagedStoresRestoreEveryIntactRequest)
{
    qvtest::ScratchDir root(L"fuzz-store");
    const uint32_t states[] = {0, 0x20000007, 0x20000003, 0x20000006, 0x20000004};
    const wchar_t* const keys[] = {L"BLOCK_COUNT", L"BLOCK_ID", L"COMPRESSED_SIZE", L"CHKPT_ID", L"SAVE_INTERVAL", L"TOTAL_DOWNLOADED_SIZE", L"TOKENS", L"QUERIES", L"CHKPT_DIR"};
    const wchar_t* const values[] = {L"-1", L"0", L"2147483647", L"-2147483648", L"99999999999999999999", L"abc", L"", L"0x10", L"1e9", L"5000"};
    // Port of this run's range with nothing behind it: nothing is fetched.
    auto id = [](int i) { return L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/fuzz/pkg" + std::to_wstring(i) + L".bin"; };
    int run = 0;
    forEachSeed("store", 16, [&](Rng& rng) {
        const std::wstring folder = root / std::to_wstring(++run), store = folder + L"\\download.info";
        ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
        auto text = [&](int i, const std::wstring& name, const std::wstring& extra) {
            return L"[" + name + L"]\r\nVERSION=1.2\r\nSTATE=" + std::to_wstring(rng.pick(states)) + L"\r\nORIGINAL_URL=" + name + L"\r\nURLS=" + name +
                   L"\r\nNAME=pkg" + std::to_wstring(i) + L"\r\nDEST_DIR=" + folder + L"\\d" + std::to_wstring(i) + L"\r\n" + extra;
        };
        // Flavours: 0 bad values, 1 no byte-order mark, 2-4 damage inside the victim, 5 anywhere, 6 many sections.
        const uint64_t flavour = rng.below(7);
        const int good = flavour == 6 ? 100 + static_cast<int>(rng.below(300)) : 1 + static_cast<int>(rng.below(4));
        std::wstring head = L"[Preferences]\r\nVERSION=1.2\r\n", extra;
        for (int i = 0; i < good; ++i)
            head += text(i, id(i), L"CHKPT_DIR=" + folder + L"\\chk\r\n");
        for (uint64_t i = 0, n = flavour == 0 ? 1 + rng.below(4) : 0; i < n; ++i)
            extra += std::wstring(rng.pick(keys)) + L"=" + (rng.chance(30) ? std::wstring(1000 + rng.below(70000), L",;%\\N"[rng.below(5)]) : rng.pick(values)) + L"\r\n";
        const std::wstring victim = text(5000, flavour == 0 && rng.chance(30) ? id(5000) + L"?" + std::wstring(5000 + rng.below(60000), L'q') : id(5000), extra);
        const std::wstring all = head + victim + (rng.chance(30) ? text(0, id(0), L"") : L""); // maybe the first section again
        std::string file = "\xFF\xFE" + std::string(reinterpret_cast<const char*>(all.data()), all.size() * 2);
        const bool ansi = flavour == 1 && rng.chance(50); // ANSI text, which the profile functions read too
        if (flavour == 1)
            file = ansi ? qvtest::narrow(all) : file.substr(2);
        else if (flavour >= 2 && flavour <= 5)
            damage(file, rng, flavour == 5 ? 0 : 2 + (head.size() + victim.find(L"]\r\n") + 3) * 2, flavour == 5 ? file.size() : 2 + (head.size() + victim.size()) * 2 - 4,
                   flavour == 5 || rng.chance(50) ? 1 : 2);
        ASSERT_TRUE(qvtest::writeFile(store, file) && DownloadRequestLog::getInstance()->open(store.c_str()));
        DownloadMgr* manager = QvDLM::createDownloadMgr();
        manager->beginRestore();
        manager->restore();
        manager->endRestore();
        std::map<std::wstring, std::wstring> restored;
        for (Download* d : manager->getDownloads())
            EXPECT_TRUE(restored.emplace(d->getRequest()->getId(), std::wstring(d->getRequest()->getName()) + L" " + d->getRequest()->getDestDir()).second) << "restored twice";
        for (int i = 0; i < good && (ansi || flavour != 1) && flavour != 5; ++i) // UTF-16 without its mark reads as nothing useful
            EXPECT_EQ(restored[id(i)], L"pkg" + std::to_wstring(i) + L" " + folder + L"\\d" + std::to_wstring(i)) << i;
        QvDLM::destroy(manager);
    });
    DownloadRequestLog::getInstance()->open((root / L"unused.info").c_str()); // no path into a folder about to go
}

// Random and malformed URLs and block lists through requests, validation and the manager. Every answer is
// a validation code and nothing is fetched: the only hosts are closed loopback ports and names under ".invalid".
TEST(Fuzz, MalformedUrlsGetClearCodesAndStayLocal)
{
    qvtest::ScratchDir root(L"fuzz-url");
    ASSERT_TRUE(DownloadRequestLog::getInstance()->open((root / L"store\\download.info").c_str()));
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    const wchar_t* const starts[] = {L"ftp://127.0.0.1", L"file://qvfuzz.invalid", L"localhost.invalid:0", L"http:/[::1]:65536", L"http:user:pw@localhost",
                                     L"://localhost@qvfuzz.invalid:-1", L"http//qvfuzz.invalid?localhost", L"\\\\LOCALHOST:abc", L"javascript:127.0.0.1",
                                     L"HTTP://qvfuzz.invalid:99999999999999999999", L"hTTpS://", L"http://qvfuzz.invalid"};
    const wchar_t* const paths[] = {L"/", L"/pkg_001_002.tar.lzma2", L"/setup.sfx.exe", L"/%00", L"/%zz%", L"/x?authparam=%s&SESSION_ID=%n", L"/pkg_000_000.bin",
                                    L"/pkg_001_99999999999.tar.lzma2", L"/a b/c", L"", L"/..\\..\\qvfuzz", L"/p?q=1;r=2,s", L"/%%%%%%%%s%s%s%n"};
    const wchar_t* const separators[] = {L";", L";;", L",", L" ", L"|", L"\r\n", L"; "};
    const wchar_t odd[] = {0xD800, 0xDFFF, 0xFFFF, 0xFEFF, 0x00E9, 0x202E, 0x7F, 0, 1, 31, L'a', L'%', L'/', L';', L',', L'?', L'&'};
    int untrusted = 0;
    forEachSeed("url", 40, [&](Rng& rng) {
        std::wstring list;
        for (uint64_t i = 0, count = 1 + rng.below(rng.chance(20) ? 400 : 4); i < count; ++i) {
            std::wstring url = (rng.chance(60) ? (rng.chance(70) ? L"http://localhost:" : L"https://LocalHost:") + std::to_wstring(qvtest::port(18 + rng.below(2)))
                                               : rng.pick(starts)) + rng.pick(paths);
            const size_t slash = url.find(L'/', url.find(L"://") == std::wstring::npos ? 0 : url.find(L"://") + 3);
            std::wstring noise(rng.chance(20) ? (rng.chance(10) ? 1000000 : 300 + rng.below(70000)) : 1 + rng.below(8), odd[10 + rng.below(7)]);
            for (size_t k = 0; noise.size() < 9 && k < noise.size(); ++k)
                noise[k] = rng.pick(odd);
            if (rng.chance(40) && slash != std::wstring::npos) // noise behind the host only, so that it can never name another host
                url.insert(slash + 1, noise);
            list += (i ? rng.pick(separators) : L"") + url;
        }
        DownloadRequest* request = QvDLM::createDownloadRequest();
        request->setUrl(list.c_str(), rng.chance(20) ? L"name%s.bin" : nullptr, rng.chance(20) ? L".tar.lzma2" : nullptr);
        request->setDestDir((root / L"dest").c_str());
        EXPECT_GE(request->getBlockCount() + !request->getUrlPath(), 0);
        const unsigned long code = validateUrl(request);
        using namespace qvdlm::validation;
        EXPECT_TRUE(code == OpenFailure || code == Forbidden || code == ServerNotResponding || code == NetworkDisconnected || code == NetworkError || code == ProxyAuthRequired) << code;
        std::wstring first = request->getUrl(false) ? request->getUrl(false) : L"";
        CharLowerW(first.data());
        untrusted += first.find(L"localhost") == std::wstring::npos;
        EXPECT_TRUE(first.find(L"localhost") != std::wstring::npos || code == OpenFailure) << "untrusted host passed";
        EXPECT_NE(manager->checkRequest(request), static_cast<unsigned>(Ok));
        if (!rng.chance(50)) {
            QvDLM::destroy(request);
        } else if (Download* download = manager->addDownload(request)) { // the manager owns the request now, whatever it answers
            EXPECT_EQ(manager->checkRequest(request), static_cast<unsigned>(AlreadyAdded));
            EXPECT_TRUE(manager->removeDownload(download));
            QvDLM::destroy(download);
        }
    });
    EXPECT_GT(untrusted, 0);
    QvDLM::destroy(manager);
    DownloadRequestLog::getInstance()->open((root / L"..\\fuzz-url-unused.info").c_str());
}
