// Damaged request stores read back by a manager's restore, through the public interface only: byte
// damage, cuts, a missing byte-order mark, huge values, bad numbers and duplicate sections. A restore
// must not crash, and every request whose section is intact must come back once, unchanged.
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "FuzzMutate.h"
#include "QvDLM.h"
#include "support/TestSupport.h"

namespace state = qvdlm::state;

namespace {

struct Section {
    std::wstring id;
    std::wstring name;
    std::wstring dest;
    std::vector<std::pair<std::wstring, std::wstring>> keys;
};

Section makeSection(const std::wstring& root, int index, uint32_t storedState)
{
    Section s;
    const std::wstring file = L"pkg" + std::to_wstring(index) + L".bin";
    // Port of this run's range with no server behind it: a probe fails at once and stays local.
    s.id = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/fuzz/" + file;
    s.name = file;
    s.dest = root + L"\\d" + std::to_wstring(index);
    s.keys = {{L"VERSION", L"1.2"},
              {L"ORIGINAL_URL", s.id},
              {L"URLS", s.id},
              {L"NAME", s.name},
              {L"DEST_DIR", s.dest},
              {L"AUTH_TOKEN", L"authparam="},
              {L"BLOCK_ID", L"0"},
              {L"BLOCK_COUNT", L"1"},
              {L"TOKENS", L""},
              {L"QUERIES", L""},
              {L"COMPRESSED_SIZE", L"1000"},
              {L"UNCOMPRESSED_SIZE", L"2000"},
              {L"STATE", std::to_wstring(static_cast<int32_t>(storedState))},
              {L"BLOCK_DOWNLOADED_SIZE", L"0"},
              {L"TOTAL_DOWNLOADED_SIZE", L"0"},
              {L"EXTRACTED_SIZE", L"0"},
              {L"CHKPT_ID", L"0"},
              {L"CHKPT_DIR", root + L"\\chk" + std::to_wstring(index)},
              {L"SAVE_INTERVAL", L"1048576"},
              {L"USE_AKAMAI", L"0"},
              {L"HTTP_FALLBACK", L"1"}};
    return s;
}

std::wstring text(const Section& s)
{
    std::wstring out = L"[" + s.id + L"]\r\n";
    for (const auto& [key, value] : s.keys)
        out += key + L"=" + value + L"\r\n";
    return out;
}

std::string bytesOf(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

// Values a damaged or hostile store may hold, by key.
void badValue(fuzz::Rng& rng, Section& s, std::string& what)
{
    static const wchar_t* const numbers[] = {L"-1", L"0", L"2147483647", L"-2147483648", L"99999999999999999999",
                                             L"abc", L"", L"0x10", L" 12", L"1e9", L"18446744073709551616"};
    static const wchar_t* const keys[] = {L"BLOCK_COUNT", L"BLOCK_ID", L"STATE", L"COMPRESSED_SIZE", L"CHKPT_ID",
                                          L"SAVE_INTERVAL", L"TOTAL_DOWNLOADED_SIZE", L"VERSION"};
    const unsigned n = 1 + static_cast<unsigned>(rng.below(4));
    for (unsigned i = 0; i < n; ++i) {
        std::wstring key;
        std::wstring value;
        switch (rng.below(4)) {
        case 0:
            key = rng.pick(keys);
            value = rng.pick(numbers);
            break;
        case 1: { // a huge value
            static const wchar_t* const texts[] = {L"NAME", L"DEST_DIR", L"URLS", L"TOKENS", L"QUERIES",
                                                   L"ORIGINAL_URL", L"CHKPT_DIR", L"VERSION", L"AUTH_TOKEN"};
            key = rng.pick(texts);
            value.assign(static_cast<size_t>(1000 + rng.below(70000)), L"N,;%\\"[rng.below(5)]);
            break;
        }
        case 2: // many blocks with short token and query lists
            key = L"BLOCK_COUNT";
            value = std::to_wstring(1 + rng.below(5000));
            s.keys.push_back({L"TOKENS", std::wstring(static_cast<size_t>(rng.below(3000)), L',')});
            break;
        default: // separators only
            key = rng.chance(50) ? L"URLS" : L"QUERIES";
            value.assign(static_cast<size_t>(rng.below(5000)), rng.chance(50) ? L';' : L',');
            break;
        }
        for (auto& kv : s.keys)
            if (kv.first == key)
                kv.second = value;
        what += " " + qvtest::narrow(key) + "(" + std::to_string(value.size()) + ")";
    }
}

std::wstring storeHead(const std::wstring& root)
{
    return L"[Preferences]\r\nVERSION=1.2\r\nDefaultDestDir=" + root + L"\\default\r\n";
}

} // namespace

TEST(StoreFuzz, DamagedStoresRestoreEveryIntactRequest)
{
    qvtest::ScratchDir root(L"fuzz-store");
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_NE(nullptr, store);
    const uint32_t states[] = {state::Completed, state::Aborted, state::Paused, state::Aborting, state::Completing};

    int dropped = 0;
    for (const uint64_t seed : fuzz::seeds("store", 16)) {
        fuzz::Rng rng(seed);
        const std::wstring folder = root / (L"s" + std::to_wstring(seed));
        ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
        const std::wstring path = folder + L"\\download.info";

        // Good sections first, then the victim (damage stays inside it), then maybe a duplicate.
        // Flavours: 0 bad values, 1 no byte-order mark, 2-4 damage inside the victim, 5 damage
        // anywhere (only survival counts), 6 many sections.
        const uint64_t flavour = rng.below(7);
        const int good = flavour == 6 ? 100 + static_cast<int>(rng.below(300)) : 1 + static_cast<int>(rng.below(4));
        std::vector<Section> sections;
        for (int i = 0; i < good; ++i)
            sections.push_back(makeSection(folder, i, flavour == 6 ? state::Completed : rng.pick(states)));
        Section victim = makeSection(folder, 5000, rng.pick(states));
        std::string what = flavour == 6 ? " " + std::to_string(good) + " sections" : "";
        if (flavour == 0) {
            badValue(rng, victim, what);
            if (rng.chance(30)) { // a section name far beyond any buffer
                victim.id += L"?" + std::wstring(static_cast<size_t>(5000 + rng.below(60000)), L'q');
                for (auto& kv : victim.keys)
                    if (kv.first == L"ORIGINAL_URL" || kv.first == L"URLS")
                        kv.second = victim.id;
                what += " long section name";
            }
        }

        std::wstring head = storeHead(folder);
        for (const Section& s : sections)
            head += text(s);
        std::wstring victimText = text(victim);
        std::wstring tail;
        if (rng.chance(30)) { // the first section again, holding other values
            Section copy = sections.front();
            for (auto& kv : copy.keys)
                if (kv.first == L"NAME" || kv.first == L"DEST_DIR")
                    kv.second = L"duplicate";
            tail = text(copy);
            what += " duplicate section";
        }
        bool ansi = false;
        std::string file;
        if (flavour == 1 && rng.chance(50)) { // no byte-order mark: ANSI text, which the profile calls read too
            ansi = true;
            file = qvtest::narrow(head + victimText + tail);
            what += " ANSI without byte-order mark";
        } else {
            file = "\xFF\xFE" + bytesOf(head + victimText + tail);
            if (flavour == 5) {
                const auto kind = static_cast<fuzz::Damage>(rng.below(static_cast<uint64_t>(fuzz::Damage::Count)));
                what += " " + fuzz::damage(file, rng, kind, rng.chance(10) ? 0 : 2, file.size());
            } else if (flavour >= 2 && flavour <= 4) {
                const size_t from = 2 + bytesOf(head).size() + bytesOf(L"[" + victim.id + L"]\r\n").size();
                const size_t to = 2 + bytesOf(head + victimText).size() - 4;
                const auto kind = static_cast<fuzz::Damage>(rng.below(static_cast<uint64_t>(fuzz::Damage::Count)));
                what += " " + fuzz::damage(file, rng, kind, from, to, rng.chance(50) ? 2 : 1);
            } else if (flavour == 1) {
                file.erase(0, 2);
                what += " UTF-16 without byte-order mark";
            }
        }
        SCOPED_TRACE("seed " + std::to_string(seed) + ":" + what);
        ASSERT_TRUE(qvtest::writeFile(path, file));
        // UTF-16 without its mark reads as nothing useful; damage anywhere may hit any section.
        const bool readable = !(flavour == 1 && !ansi) && flavour != 5;

        ASSERT_TRUE(store->open(path.c_str()));
        DownloadMgr* manager = QvDLM::createDownloadMgr();
        ASSERT_NE(nullptr, manager);
        manager->beginRestore();
        manager->restore();
        manager->endRestore();

        std::map<std::wstring, int> seen;
        std::map<std::wstring, std::pair<std::wstring, std::wstring>> restored;
        for (Download* d : manager->getDownloads()) {
            DownloadRequest* r = d->getRequest();
            ASSERT_NE(nullptr, r);
            const std::wstring id = r->getId() ? r->getId() : L"";
            ++seen[id];
            restored[id] = {r->getName() ? r->getName() : L"", r->getDestDir() ? r->getDestDir() : L""};
        }
        if (readable) {
            for (const Section& s : sections) {
                EXPECT_EQ(1, seen[s.id]) << "intact request " << qvtest::narrow(s.id);
                EXPECT_TRUE(restored[s.id].first == s.name) << qvtest::narrow(s.id);
                EXPECT_TRUE(restored[s.id].second == s.dest) << qvtest::narrow(s.id);
            }
        }
        for (const auto& [id, count] : seen)
            EXPECT_EQ(1, count) << "restored twice: " << qvtest::narrow(id);
        dropped += seen.count(victim.id) ? 0 : 1;
        QvDLM::destroy(manager);
    }
    std::printf("[fuzz] store: damaged request dropped in %d runs\n", dropped);
    store->open((root / L"unused.info").c_str()); // leave no path into a folder about to go
}
