// Hostile and damaged tar streams fed to the tar sink in random chunks: entries that climb out, name
// drives, streams or absolute paths, links that point out and entries written through them, long
// names carrying all of these, cut headers, bad checksums and huge sizes. Nothing may appear outside
// the destination (a sibling "dest2" and the parent are watched), refusals carry the tar error codes,
// and no run crashes or hangs.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "FuzzMutate.h"
#include "QvDLMCodes.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TarTestSupport.h"
#include "support/TestSupport.h"

namespace tarerror = qvdlm::tarerror;
using tartest::Header;
using tartest::TarBuilder;

namespace {

constexpr uint32_t kTarCodes[] = {tarerror::FileOpen,   tarerror::HardLink,  tarerror::SymbolicLink,
                                  tarerror::Folder,     tarerror::ShortWrite, tarerror::BadHeader,
                                  tarerror::Truncated,  tarerror::NameConversion};

bool isTarCode(uint32_t code) { return std::find(std::begin(kTarCodes), std::end(kTarCodes), code) != std::end(kTarCodes); }

// Names that must never be extracted: they climb out, are absolute, name a drive, a device or a
// stream, or fold into another name. Every one carries the marker "qvfuzz" so escapes can be found.
const char* const kHostileNames[] = {
    "../qvfuzz-up",          "../dest2/qvfuzz",        "..\\dest2\\qvfuzz",    "a/../../qvfuzz",
    "a/b/../../../qvfuzz",   "/qvfuzz-abs",            "\\qvfuzz-abs",         "C:\\qvfuzz",
    "C:qvfuzz",              "C:/qvfuzz",              "Z:\\tmp\\qvfuzz",      "qvfuzz:stream",
    "sub/qvfuzz:ads",        "\\\\?\\C:\\qvfuzz",      "\\\\.\\C:\\qvfuzz",    "\\\\server\\share\\qvfuzz",
    "..",                    "sub/ . /qvfuzz",         "...",                  "sub/.. /qvfuzz",
    "../dest-qvfuzz",        "./../qvfuzz",            "//qvfuzz",             "sub/../../dest2/qvfuzz",
    // Reserved device names lead to a device, not to a file of the destination.
    "CON",                   "sub/nul",                "aux.txt",              "COM1",
    "sub/lpt1.qvfuzz",       "PRN.tar",                "conin$",               "sub/CONOUT$",
};
// Link targets that lead out of the destination.
const char* const kHostileTargets[] = {
    "../dest2/keep.txt", "../sentinel.txt",     "../../sentinel.txt", "/etc/passwd",  "C:\\windows\\win.ini",
    "\\qvfuzz",          "..",                  "../..",              "a/../../dest2", "Z:\\",
    "x:stream",          "..\\dest2\\keep.txt",
};

struct Built {
    std::string bytes;
    std::map<std::string, std::string> files; // good files written before any hostile entry
    uint32_t expected = 0;                    // the code of the first hostile entry, 0 when none
    std::string what;                         // description of the hostile entry
};

std::string goodName(fuzz::Rng& rng, int index)
{
    static const char* const folders[] = {"", "sub/", "sub/deeper/", "other/", "x y/"};
    return std::string(rng.pick(folders)) + "f" + std::to_string(index) + ".bin";
}

void addGood(fuzz::Rng& rng, Built& b, TarBuilder& tar, int index)
{
    switch (rng.below(4)) {
    case 0:
        tar.folder("dir" + std::to_string(index) + "/");
        break;
    case 1:
        if (!b.files.empty()) { // a hard link to a file of this archive
            auto it = b.files.begin();
            std::advance(it, static_cast<long>(rng.below(b.files.size())));
            const std::string name = "hl" + std::to_string(index);
            tar.hardLink(name, it->first);
            b.files[name] = it->second;
            break;
        }
        [[fallthrough]];
    default: {
        const std::string name = goodName(rng, index);
        const std::string data = qvtest::patternBytes(static_cast<size_t>(rng.below(1500)), static_cast<uint32_t>(index));
        tar.file(name, data);
        b.files[name] = data;
    }
    }
}

// One hostile entry (or a pair: a link, then an entry written through it).
void addHostile(fuzz::Rng& rng, Built& b, TarBuilder& tar)
{
    const std::string name = rng.pick(kHostileNames);
    const std::string target = rng.pick(kHostileTargets);
    switch (rng.below(7)) {
    case 0:
        tar.file(name, "escaped");
        b.expected = tarerror::FileOpen;
        b.what = "file " + name;
        break;
    case 1: { // the same through a GNU long name that is long enough to need one
        std::string longName;
        for (int i = 0; i < 40; ++i)
            longName += "d" + std::to_string(i) + "/";
        for (int i = 0; i < 41; ++i)
            longName += "../";
        longName += rng.chance(50) ? "qvfuzz-long" : "dest2/qvfuzz-long";
        tar.file(longName, "escaped");
        b.expected = tarerror::FileOpen;
        b.what = "long name climbing out";
        break;
    }
    case 2:
        tar.folder(name + "/");
        b.expected = tarerror::Folder;
        b.what = "folder " + name;
        break;
    case 3:
        tar.hardLink("hl-out", target);
        b.expected = tarerror::HardLink;
        b.what = "hard link to " + target;
        break;
    case 4:
        tar.symLink("sl-out", target);
        b.expected = tarerror::SymbolicLink;
        b.what = "symbolic link to " + target;
        break;
    case 5: { // a link inside, then an entry that climbs out through it
        tar.symLink("inward", "sub");
        const std::string through = std::string("inward/") + (rng.chance(50) ? "../../qvfuzz-through" : "../../dest2/qvfuzz");
        tar.file(through, "escaped");
        b.expected = tarerror::FileOpen;
        b.what = "file " + through + " after a link";
        break;
    }
    default: { // a link whose target is long and climbs out, as a GNU long link
        std::string longTarget;
        for (int i = 0; i < 60; ++i)
            longTarget += "../";
        longTarget += "dest2/keep.txt";
        if (rng.chance(50)) {
            tar.hardLink("hl-long", longTarget);
            b.expected = tarerror::HardLink;
        } else {
            tar.symLink("sl-long", longTarget);
            b.expected = tarerror::SymbolicLink;
        }
        b.what = "long link target climbing out";
        break;
    }
    }
}

Built build(fuzz::Rng& rng, bool hostile)
{
    Built b;
    TarBuilder tar;
    const int before = static_cast<int>(rng.below(5));
    for (int i = 0; i < before; ++i)
        addGood(rng, b, tar, i);
    if (hostile)
        addHostile(rng, b, tar);
    // Entries after a refusal are never reached; they must not appear either.
    for (int i = 0; i < 2; ++i) {
        if (!hostile)
            addGood(rng, b, tar, 100 + i);
        else
            tar.file("after" + std::to_string(i) + ".bin", "late");
    }
    b.bytes = tar.bytes();
    return b;
}

Header plain(const std::string& name, char type, uint64_t size)
{
    Header h;
    h.name = name;
    h.type = type;
    h.size = size;
    return h;
}

// Structural damage of a clean archive, with the code it must end with.
std::string structural(fuzz::Rng& rng, Built& b)
{
    TarBuilder tar;
    tar.file("first.bin", "first");
    b.files = {{"first.bin", "first"}};
    switch (rng.below(5)) {
    case 0: { // cut inside the next header
        const std::string block = tartest::headerBlock(plain("second.bin", '0', 10));
        b.bytes = tar.bytes(false) + block.substr(0, 1 + rng.below(511));
        b.expected = tarerror::Truncated;
        return "header cut short";
    }
    case 1: { // a checksum that does not add up
        std::string block = tartest::headerBlock(plain("second.bin", '0', 10));
        block[148 + rng.below(6)] ^= 0x01;
        b.bytes = tar.bytes(false) + block + std::string(512, 'x') + std::string(1024, '\0');
        b.expected = tarerror::BadHeader;
        return "bad checksum";
    }
    case 2: { // a huge size that the stream never delivers
        std::string block = tartest::headerBlock(plain("huge.bin", '0', 0));
        block.replace(124, 11, rng.chance(50) ? "77777777777" : "7777777777\x37");
        block.replace(148, 8, "        "); // the checksum over the changed size
        uint32_t sum = 0;
        for (unsigned char c : block)
            sum += c;
        char text[8];
        std::snprintf(text, sizeof text, "%06o", sum);
        block.replace(148, 6, text);
        block[154] = '\0';
        b.bytes = tar.bytes(false) + block + std::string(512 * (1 + rng.below(4)), 'y');
        b.expected = tarerror::Truncated;
        return "huge size";
    }
    case 3: { // a GNU long name whose text never ends
        std::string block = tartest::headerBlock(plain("././@LongLink", 'L', 5000));
        b.bytes = tar.bytes(false) + block + std::string(512, 'n');
        b.expected = tarerror::Truncated;
        return "long name cut short";
    }
    default: { // a file's data cut short
        const std::string data(2000, 'd');
        TarBuilder more;
        more.file("second.bin", data);
        const std::string all = more.bytes(false);
        b.bytes = tar.bytes(false) + all.substr(0, 512 + 1 + rng.below(data.size() - 1));
        b.expected = tarerror::Truncated;
        return "data cut short";
    }
    }
}

// Files whose name carries the escape marker in a folder (not below it).
std::vector<std::wstring> markersIn(const std::wstring& folder)
{
    std::vector<std::wstring> found;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\*qvfuzz*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return found;
    do
        found.push_back(folder + L"\\" + data.cFileName);
    while (FindNextFileW(find, &data));
    FindClose(find);
    return found;
}

std::map<std::string, tartest::TreeEntry> outsideOf(const std::wstring& root)
{
    auto tree = tartest::readTree(root);
    for (auto it = tree.begin(); it != tree.end();)
        it = (it->first == "dest" || it->first.rfind("dest/", 0) == 0) ? tree.erase(it) : std::next(it);
    return tree;
}

bool sameTree(const std::map<std::string, tartest::TreeEntry>& a, const std::map<std::string, tartest::TreeEntry>& b)
{
    if (a.size() != b.size())
        return false;
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j)
        if (i->first != j->first || i->second.folder != j->second.folder || i->second.content != j->second.content)
            return false;
    return true;
}

std::wstring parentOf(const std::wstring& path) { return path.substr(0, path.find_last_of(L'\\')); }

} // namespace

TEST(TarFuzz, HostileAndDamagedStreamsStayInsideTheDestination)
{
    qvtest::ScratchDir root(L"fuzz-tar");
    const std::wstring dest = root / L"dest";
    ASSERT_TRUE(CreateDirectoryW((root / L"dest2").c_str(), nullptr));
    ASSERT_TRUE(qvtest::writeFile(root / L"dest2\\keep.txt", "sibling"));
    ASSERT_TRUE(qvtest::writeFile(root / L"sentinel.txt", "parent"));
    const auto before = outsideOf(root.path());
    ASSERT_EQ(3u, before.size());
    const std::wstring watched[] = {parentOf(root.path()), L"C:", L"Z:"};
    std::vector<std::wstring> markedBefore;
    for (const auto& folder : watched)
        for (const auto& m : markersIn(folder))
            markedBefore.push_back(m);

    int refused = 0;
    int damaged = 0;
    for (const uint64_t seed : fuzz::seeds("tar", 120)) {
        fuzz::Rng rng(seed);
        Built b;
        std::string what;
        bool exact = true; // the outcome is known: no random damage
        switch (rng.below(4)) {
        case 0:
            b = build(rng, false);
            what = "clean archive";
            break;
        case 1:
            what = structural(rng, b);
            break;
        case 2: {
            b = build(rng, rng.chance(50));
            const auto kind = static_cast<fuzz::Damage>(rng.below(static_cast<uint64_t>(fuzz::Damage::Count)));
            what = fuzz::damage(b.bytes, rng, kind, 0, b.bytes.size());
            exact = false;
            ++damaged;
            break;
        }
        default:
            b = build(rng, true);
            what = "hostile " + b.what;
            break;
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + what);

        qvtest::removeTree(dest);
        ASSERT_TRUE(CreateDirectoryW(dest.c_str(), nullptr));
        bool ok = true;
        uint32_t status = 0;
        {
            TARStreamWriterImp sink(dest.c_str());
            const size_t chunk = rng.chance(50) ? 1 + rng.below(700) : 512 * (1 + rng.below(16));
            ok = tartest::feed(sink, b.bytes, chunk) && sink.endOfInput();
            status = sink.lastStatus();
        }
        if (!ok) {
            EXPECT_TRUE(isTarCode(status)) << std::hex << status;
            ++refused;
        }
        if (exact) {
            EXPECT_EQ(b.expected == 0, ok);
            if (b.expected) {
                EXPECT_EQ(b.expected, status) << std::hex << status;
            }
            const auto tree = tartest::readTree(dest);
            for (const auto& [name, data] : b.files) {
                const auto it = tree.find(name);
                if (it == tree.end())
                    ADD_FAILURE() << "missing " << name;
                else
                    EXPECT_TRUE(it->second.content == data) << name;
            }
            for (const auto& [name, entry] : tree)
                EXPECT_EQ(std::string::npos, name.find("after")) << "entry past a refusal: " << name;
        }
        for (const auto& [name, entry] : tartest::readTree(dest))
            EXPECT_EQ(std::string::npos, name.find("qvfuzz")) << "hostile name extracted: " << name;
        ASSERT_TRUE(sameTree(before, outsideOf(root.path()))) << "something changed outside the destination";
        std::vector<std::wstring> marked;
        for (const auto& folder : watched)
            for (const auto& m : markersIn(folder))
                marked.push_back(m);
        ASSERT_EQ(markedBefore, marked) << "an entry escaped to a drive root or the parent";
    }
    std::printf("[fuzz] tar: %d refused, %d randomly damaged\n", refused, damaged);
    EXPECT_GT(refused, 0);
}
