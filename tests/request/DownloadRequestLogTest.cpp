// The request store: file creation, key order, save rules, damaged files, and a writer killed mid-write.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/Win32Raii.h"
#include "request/DownloadRequestImp.h"
#include "request/DownloadRequestLogImp.h"
#include "support/TestSupport.h"

namespace {

using Texts = std::vector<std::wstring>;

std::string u16(const std::wstring& text) { return "\xFF\xFE" + std::string(reinterpret_cast<const char*>(text.data()), text.size() * 2); }
std::wstring section(const std::wstring& name, const std::wstring& extra = L"", const std::wstring& urls = L"", const std::wstring& state = L"536870915")
{
    return L"[" + name + L"]\r\nVERSION=1.2\r\nSTATE=" + state + L"\r\nORIGINAL_URL=" + name + L"\r\nURLS=" + (urls.empty() ? name : urls) +
           L"\r\nNAME=n\r\nDEST_DIR=C:\\d\r\n" + extra;
}

// Loads a whole store; one line per request: id, name, state, blocks, block, checkpoint, sizes, save interval, URL.
Texts loadAll(DownloadRequestLog& store)
{
    DownloadRequestSet set;
    EXPECT_TRUE(store.loadAll(set));
    Texts out;
    for (DownloadRequest* r : set) {
        std::wostringstream line;
        line << r->getId() << ' ' << r->getName() << ' ' << r->getState() << ' ' << r->getBlockCount() << ' ' << r->getBlockId() << ' ' << r->getCheckpointId() << ' '
             << r->getCompressedSize() << ' ' << r->getTotalDownloadedSize() << ' ' << r->getSaveInterval() << ' ' << (r->getUrl(false) ? r->getUrl(false) : L"-");
        out.push_back(line.str());
        delete r;
    }
    std::sort(out.begin(), out.end());
    return out;
}

class StoreTest : public ::testing::Test {
protected:
    std::wstring text() const
    {
        std::string b;
        EXPECT_TRUE(qvtest::readFile(path_, b) && b.substr(0, 2) == "\xFF\xFE");
        return std::wstring(reinterpret_cast<const wchar_t*>(b.data() + 2), (b.size() - 2) / 2);
    }
    std::wstring raw(const wchar_t* section, const wchar_t* key) const // "-" when missing
    {
        wchar_t value[8192];
        return std::wstring(value, GetPrivateProfileStringW(section, key, L"-", value, 8192, path_.c_str()));
    }
    Texts sections() const
    {
        std::vector<wchar_t> buffer(65536);
        GetPrivateProfileSectionNamesW(buffer.data(), 65536, path_.c_str());
        Texts names;
        for (const wchar_t* at = buffer.data(); *at; at += names.back().size() + 1)
            names.emplace_back(at);
        return names;
    }
    // One file per test: the profile functions cache files by name.
    qvtest::ScratchDir dir_{L"request-store-" + qvtest::widen(::testing::UnitTest::GetInstance()->current_test_info()->name())};
    std::wstring path_ = dir_ / L"download.info";
    DownloadRequestLogImp store_;
    DownloadRequestImp r_;
    const wchar_t* id_ = nullptr;

    void addExample()
    {
        r_.setUrl(L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1", nullptr, L"sfx");
        r_.setName(L"\u00e4\u4e2d\r\n[http://evil/]\nNAME=x"); // line breaks make no new keys or sections
        r_.setDestDir(L"C:\\Games"), r_.setCompressedSize(123456789012ull), r_.setState(0x20000003), r_.setBlockDownloadedSize(1000);
        r_.setTotalDownloadedSize(5000), r_.setCheckpointId(17), r_.setUseAkamai(true), r_.setBlockId(1);
        ASSERT_TRUE(store_.open(path_.c_str()) && store_.add(&r_));
        id_ = r_.getId();
    }
};

} // namespace

TEST_F(StoreTest, OpenAndAddWriteEveryKeyInOrderOnceAndLoadGivesTheRequestBack)
{
    addExample();
    size_t at = 0;
    for (const wchar_t* key : {L"VERSION", L"ORIGINAL_URL", L"URLS", L"NAME", L"DEST_DIR", L"AUTH_TOKEN", L"REPORTING_TOKEN", L"BLOCK_ID", L"BLOCK_COUNT",
                               L"TOKENS", L"QUERIES", L"COMPRESSED_SIZE", L"UNCOMPRESSED_SIZE", L"STATE", L"BLOCK_DOWNLOADED_SIZE",
                               L"TOTAL_DOWNLOADED_SIZE", L"EXTRACTED_SIZE", L"CHKPT_ID", L"CHKPT_DIR", L"SAVE_INTERVAL", L"USE_AKAMAI", L"HTTP_FALLBACK"})
        ASSERT_NE(at = text().find(L"\n" + std::wstring(key) + L"=", at), std::wstring::npos) << qvtest::narrow(key) << " missing or out of order";
    EXPECT_EQ(raw(id_, L"URLS"), r_.getUrls()[0] + L";" + r_.getUrls()[1] + L";" + r_.getUrls()[2]);
    EXPECT_EQ(raw(id_, L"TOKENS"), std::wstring(r_.getToken(0)) + L"," + r_.getToken(1) + L"," + r_.getToken(2) + L",");
    EXPECT_EQ(raw(id_, L"EXE_PATH") + raw(id_, L"DATE"), L"--"); // launch keys of version 1.0 only; the date on completion
    // The stored total is the total plus the block's part when first added; the current URL is rebuilt.
    EXPECT_EQ(loadAll(store_), Texts{std::wstring(id_) + L" \u00e4\u4e2d  [http://evil/] NAME=x 536870915 3 1 17 123456789012 6000 734003200 " + r_.getUrl(false)});
    DownloadRequestImp back;
    ASSERT_TRUE(store_.load(id_, &back));
    EXPECT_TRUE(back.getQueries() == r_.getQueries() && back.getUseAkamai() && back.getBlockDownloadedSize() == 1000 && !std::wcscmp(back.getToken(2), r_.getToken(2)));

    const std::wstring before = text();
    r_.setName(L"another");
    EXPECT_TRUE(store_.add(&r_));
    EXPECT_EQ(text(), before) << "add never overwrites a stored request";
    WritePrivateProfileStringW(id_, L"DEST_DIR", L"", path_.c_str()); // without a destination it counts as absent
    EXPECT_FALSE(store_.exists(id_));
    EXPECT_TRUE(store_.add(&r_));
    EXPECT_EQ(raw(id_, L"NAME"), L"another");
    EXPECT_TRUE(store_.remove(id_));

    DownloadRequestImp old; // version 1.0 keeps its launch settings here, right after DEST_DIR
    old.setUrl(L"http://h.example/old.bin", nullptr, nullptr);
    old.setVersion(L"1.0"), old.setDestDir(L"C:\\old"), old.setExePath(L"setup.exe"), old.setAutoOpen(true);
    ASSERT_TRUE(store_.add(&old));
    EXPECT_NE(text().find(L"DEST_DIR=C:\\old\r\nEXE_PATH=setup.exe\r\nEXE_PARAM=\r\nAUTO_OPEN=1\r\nAUTH_TOKEN="), std::wstring::npos);
    EXPECT_EQ(sections(), (Texts{L"Preferences", L"http://h.example/old.bin"}));
    // A new file is UTF-16 with its preferences; an existing one keeps them.
    path_ = dir_ / L"a\\b\\download.info";
    ASSERT_TRUE(store_.open(path_.c_str()));
    EXPECT_EQ(text(), L"[Preferences]\r\nVERSION=1.2\r\n");
    ASSERT_TRUE(qvtest::writeFile(path_, u16(L"[Preferences]\r\nVERSION=1.1\r\n")));
    ASSERT_TRUE(store_.open(path_.c_str()));
    EXPECT_EQ(text(), L"[Preferences]\r\nVERSION=1.1\r\n");
    wchar_t base[MAX_PATH];
    ASSERT_TRUE(SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, base)));
    ASSERT_TRUE(DownloadRequestLog::getInstance()->open(nullptr));
    EXPECT_EQ(std::wstring(DownloadRequestLog::getInstance()->getPath()), std::wstring(base) + L"\\Quorvel\\Tarnwick\\download.info");
}

TEST_F(StoreTest, SavesFollowTheStateRulesAndACopyLeftByADeadWriterIsPutBack)
{
    addExample();
    r_.setBlockId(2), r_.setBlockDownloadedSize(777), r_.setExtractedSize(99), r_.setDate(L"2024-05-06");
    // STATE BLOCK_ID BLOCK_DOWNLOADED_SIZE TOTAL_DOWNLOADED_SIZE EXTRACTED_SIZE CHKPT_ID DATE after each save.
    const std::tuple<bool, uint32_t, uint32_t, const wchar_t*> saves[] = {
        {false, 0x20000002, 0, L"536870914 1 1000 6000 0 17 -"},
        {false, 0x20000001, 0, L"536870914 1 1000 6000 0 17 -"}, // init and exiting are never stored
        {true, 0x20000002, 42, L"536870914 2 777 5000 99 42 -"},  // the given checkpoint; the total without the block
        {true, 0x20000005, 43, L"536870914 2 777 5000 99 43 -"},
        {true, 0x20000006, 44, L"536870914 2 777 5000 99 43 -"}, // no progress while aborting
        {false, 0x20000006, 0, L"536870918 0 0 0 0 0 -"},        // aborting resets it
        {false, 0, 0, L"0 0 0 0 0 0 2024-05-06"},                 // completed records the date
    };
    for (const auto& [progress, state, checkpoint, expected] : saves) {
        EXPECT_TRUE(progress ? store_.saveProgress(&r_, state, checkpoint) : store_.saveState(&r_, state));
        std::wstring now;
        for (const wchar_t* key : {L"STATE", L"BLOCK_ID", L"BLOCK_DOWNLOADED_SIZE", L"TOTAL_DOWNLOADED_SIZE", L"EXTRACTED_SIZE", L"CHKPT_ID", L"DATE"})
            now += (now.empty() ? L"" : L" ") + raw(id_, key);
        EXPECT_EQ(now, expected) << std::hex << state;
    }
    r_.setExePath(L"run.exe"), r_.setDestDir(L"E:\\new"), r_.setUseAkamai(false);
    EXPECT_TRUE(store_.saveLaunch(&r_) && store_.saveDestDir(&r_) && store_.saveUseAkamai(&r_));
    EXPECT_EQ(raw(id_, L"EXE_PATH") + raw(id_, L"AUTO_OPEN") + raw(id_, L"DEST_DIR") + raw(id_, L"USE_AKAMAI"), L"run.exe0E:\\new0");
    EXPECT_FALSE(qvtest::fileExists(path_ + L".bak")) << "every write takes its backup away again";
    // A writer that dies while the profile functions rewrite the file leaves its copy of the file as it was
    // before that write; the next open puts the copy back, unless a living writer still holds it.
    const std::wstring backup = path_ + L".bak", cut = L"[Preferences]\r\nVERSION=1.2\r\n";
    ASSERT_TRUE(CopyFileW(path_.c_str(), backup.c_str(), FALSE));
    ASSERT_TRUE(qvtest::writeFile(path_, u16(cut)));
    {
        qv::UniqueFile held(CreateFileW(backup.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(store_.open(path_.c_str()));
        EXPECT_EQ(text(), cut) << "a living writer's file is not rolled back";
    }
    ASSERT_TRUE(store_.open(path_.c_str()));
    EXPECT_EQ(loadAll(store_).size(), 1u);
    EXPECT_FALSE(qvtest::fileExists(backup));
}

TEST_F(StoreTest, DamagedStoresLoadTheirIntactSectionsAndLoseTheRest)
{
    const std::wstring rest = L" n 536870915 1 0 0 0 0 734003200 ", two = section(L"http://h.example/1") + section(L"http://h.example/2");
    auto blocks = [](const std::wstring& count) {
        return u16(section(L"http://h.example/1?authparam=%s", L"BLOCK_COUNT=" + count + L"\r\nTOKENS=t1,t2,\r\nQUERIES=a,b,\r\nBLOCK_ID=1\r\n",
                           L"http://h.example/1?authparam=%s;http://h.example/2?authparam=%s"));
    };
    auto listed = [](const wchar_t* block) {
        return u16(section(L"http://h.example/%s/1?authparam=%s", L"BLOCK_COUNT=2\r\nTOKENS=T0,T1,\r\nQUERIES=q=1,\r\nBLOCK_ID=" + std::wstring(block) + L"\r\n",
                           L"http://h.example/%s/1?authparam=%s;http://h.example/2?authparam=%s"));
    };
    const std::wstring listedId = L"http://h.example/%s/1?authparam=%s n 536870915 2 ";
    const Texts twoBlocks = {L"http://h.example/1?authparam=%s n 536870915 2 1 0 0 0 734003200 http://h.example/2?authparam=t2&b"};
    std::wstring many;
    Texts manyLines;
    for (int i = 10; i < 70; ++i) { // a list of section names longer than the first buffer
        const std::wstring name = L"http://downloads.example.com/packages/long/path/name/" + std::to_wstring(i) + L".bin";
        many += section(name);
        manyLines.push_back(name + rest + name);
    }
    const std::pair<std::string, Texts> cases[] = {
        {u16(L"[Preferences]\r\nVERSION=1.2\r\n" + section(L"http://h.example/good") + L"[HTTPS://h.example/noname]\r\nVERSION=1.2\r\nSTATE=1\r\n" L"ORIGINAL_URL=x\r\nURLS=https://h.example/noname\r\nDEST_DIR=C:\\d\r\n[Other]\r\nNAME=kept\r\n"), {L"http://h.example/good" + rest + L"http://h.example/good"}},
        {u16(two.substr(0, two.rfind(L"NAME=") + 1)), {L"http://h.example/1" + rest + L"http://h.example/1"}}, // cut short
        {qvtest::narrow(section(L"http://h.example/ansi")), {L"http://h.example/ansi" + rest + L"http://h.example/ansi"}},
        {qvtest::patternBytes(6000, 1), {}},
        {u16(L"").append(qvtest::patternBytes(6000, 2)), {}},
        {u16(L"words\r\n" + section(L"http://h.example/g", L"no key\r\n=x\r\n;c\r\n[[[\r\nCOMPRESSED_SIZE=5\r\n")), {L"http://h.example/g n 536870915 1 0 0 5 0 734003200 http://h.example/g"}},
        {u16(section(L"http://h.example/dup", L"CHKPT_ID=1\r\n") + section(L"http://h.example/other") + section(L"HTTP://H.EXAMPLE/DUP", L"CHKPT_ID=2\r\n")), {L"http://h.example/dup n 536870915 1 0 1 0 0 734003200 http://h.example/dup", L"http://h.example/other" + rest + L"http://h.example/other"}},
        {u16(section(L"http://h.example/s", L"", L"", L"playing") + section(L"http://h.example/ok")), {L"http://h.example/ok" + rest + L"http://h.example/ok"}},
        {u16(section(L"http://h.example/n", L"COMPRESSED_SIZE=abc\r\nSAVE_INTERVAL=12x\r\nCHKPT_ID=4294967296\r\n" L"TOTAL_DOWNLOADED_SIZE=18446744073709551615\r\nBLOCK_ID=7\r\n")), {L"http://h.example/n n 536870915 1 0 0 0 18446744073709551615 734003200 http://h.example/n"}},
        {blocks(L"2"), twoBlocks}, {blocks(L"0"), twoBlocks}, {blocks(L"-5"), twoBlocks}, {blocks(L"abc"), twoBlocks}, {blocks(L"99999999"), twoBlocks},
        {u16(section(L"http://h.example/a?authparam=%s", L"TOKENS=" + std::wstring(100, L't') + L",\r\nQUERIES=" + std::wstring(1500, L'q') + L",\r\n", L"http://h.example/a?authparam=%s")), {L"http://h.example/a?authparam=%s" + rest + L"http://h.example/a?authparam=" + std::wstring(100, L't') + L"&" + std::wstring(1500, L'q')}}, // long values come back whole
        {u16(many), manyLines}, // the token fills the query's placeholder only; one query serves every block
        {listed(L"0"), {listedId + L"0 0 0 0 734003200 http://h.example/%s/1?authparam=T0&q=1"}}, {listed(L"1"), {listedId + L"1 0 0 0 734003200 http://h.example/2?authparam=T1&q=1"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        path_ = dir_ / (std::to_wstring(i) + L".info");
        ASSERT_TRUE(qvtest::writeFile(path_, cases[i].first));
        ASSERT_TRUE(store_.open(path_.c_str()));
        EXPECT_EQ(loadAll(store_), cases[i].second);
        for (std::wstring name : sections()) { // the sections of requests that did not load are gone
            CharLowerW(name.data());
            EXPECT_TRUE(name.rfind(L"http", 0) != 0 || std::any_of(cases[i].second.begin(), cases[i].second.end(),
                                                                   [&](const std::wstring& line) { return line.rfind(name + L" ", 0) == 0; })) << qvtest::narrow(name);
        }
    }
}

// Run by the kill test as a child process: stores one request and records progress until it is killed.
TEST(StoreKill, DISABLED_Writer)
{
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_TRUE(store->open(qvtest::env(L"QVDLM_STORE").c_str()));
    DownloadRequestImp request;
    request.setUrl(L"http://localhost/store-kill/pkg_001_004.tar.lzma2", nullptr, nullptr);
    request.setDestDir(L"C:\\store-kill"), request.setName(L"store-kill"), store->add(&request);
    qvtest::writeFile(qvtest::env(L"QVDLM_STORE") + L".ready", "");
    for (uint32_t id = 1; id < 1000000; ++id) { // bounded: killed long before the end
        request.setBlockDownloadedSize(id * 4096ull);
        store->saveProgress(&request, 0x20000002, id);
    }
}

TEST(StoreKill, AWriterKilledAtAnyMomentLeavesItsRequestLoadable)
{
    qvtest::ScratchDir dir(L"request-store-kill");
    const std::wstring store = dir / L"download.info";
    wchar_t self[MAX_PATH];
    std::wstring command = L"\"" + std::wstring(self, GetModuleFileNameW(nullptr, self, MAX_PATH)) + L"\" --gtest_also_run_disabled_tests --gtest_filter=StoreKill.DISABLED_Writer";
    SetEnvironmentVariableW(L"QVDLM_STORE", store.c_str());
    int round = 0;
    for (const ULONGLONG end = GetTickCount64() + 40000; round < 25 && GetTickCount64() < end; ++round) {
        DeleteFileW((store + L".ready").c_str());
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES; // and none: the writer's output would only confuse
        PROCESS_INFORMATION info{};
        ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info));
        qv::UniqueHandle process(info.hProcess), thread(info.hThread);
        for (int i = 0; i < 1000 && !qvtest::fileExists(store + L".ready"); ++i)
            ASSERT_EQ(WaitForSingleObject(process.get(), 10), static_cast<DWORD>(WAIT_TIMEOUT)) << "the writer ended early";
        Sleep(5 + (round * 37) % 60);
        TerminateProcess(process.get(), 9);
        WaitForSingleObject(process.get(), 10000);
        DownloadRequestLogImp reader;
        DownloadRequestSet loaded;
        ASSERT_TRUE(reader.open(store.c_str()) && reader.loadAll(loaded));
        ASSERT_EQ(loaded.size(), 1u) << "the request was lost in round " << round;
        const std::unique_ptr<DownloadRequest> back(*loaded.begin());
        EXPECT_EQ(back->getBlockDownloadedSize() % 4096, 0u) << "a progress value from a cut write";
        EXPECT_EQ(back->getState() | 2, 0x20000002u);
    }
    EXPECT_GT(round, 5);
}
