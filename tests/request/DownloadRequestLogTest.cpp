// The request store: file creation, key order, save rules, round trips and damaged files.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "QvDLMCodes.h"
#include "common/Win32Raii.h"
#include "request/DownloadRequestImp.h"
#include "request/DownloadRequestLogImp.h"
#include "support/TestSupport.h"

namespace {

constexpr wchar_t kWorkedExample[] = L"https://cdn.example.com/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1";

std::string utf16(const std::wstring& text)
{
    return std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t));
}

// A store file as written by hand: byte-order mark and UTF-16LE text.
bool writeStore(const std::wstring& path, const std::wstring& text) { return qvtest::writeFile(path, "\xFF\xFE" + utf16(text)); }

// Owns what loadAll hands out.
struct LoadedSet {
    DownloadRequestSet requests;
    ~LoadedSet()
    {
        for (DownloadRequest* r : requests)
            delete r;
    }
    DownloadRequest* only() const { return requests.size() == 1 ? *requests.begin() : nullptr; }
};

class StoreTest : public ::testing::Test {
protected:
    // One file per test: the profile functions cache files by name and modification time.
    std::wstring storePath() const
    {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        return dir_ / (qvtest::widen(info->name()) + L".info");
    }

    std::string bytes() const
    {
        std::string b;
        EXPECT_TRUE(qvtest::readFile(path_, b));
        return b;
    }

    // The file's text after its byte-order mark, which must be there.
    std::wstring text() const
    {
        const std::string b = bytes();
        EXPECT_GE(b.size(), 2u);
        if (b.size() < 2)
            return {};
        EXPECT_EQ(static_cast<unsigned char>(b[0]), 0xFF);
        EXPECT_EQ(static_cast<unsigned char>(b[1]), 0xFE);
        EXPECT_EQ(b.size() % 2, 0u) << "UTF-16 text has an even size";
        std::wstring t((b.size() - 2) / 2, L'\0');
        std::memcpy(t.data(), b.data() + 2, t.size() * 2);
        return t;
    }

    std::wstring raw(const wchar_t* section, const wchar_t* key) const
    {
        wchar_t value[8192];
        GetPrivateProfileStringW(section, key, L"<absent>", value, 8192, path_.c_str());
        return value;
    }

    std::vector<std::wstring> sectionNames() const
    {
        std::vector<wchar_t> buffer(65536);
        const DWORD n = GetPrivateProfileSectionNamesW(buffer.data(), static_cast<DWORD>(buffer.size()), path_.c_str());
        std::vector<std::wstring> names;
        for (DWORD at = 0; at < n && buffer[at];) {
            names.emplace_back(buffer.data() + at);
            at += static_cast<DWORD>(names.back().size()) + 1;
        }
        return names;
    }

    // Key names of one section in file order.
    std::vector<std::wstring> keysInFileOrder(const std::wstring& section) const
    {
        const std::wstring t = text();
        std::vector<std::wstring> keys;
        size_t at = t.find(L"[" + section + L"]");
        if (at == std::wstring::npos)
            return keys;
        at = t.find(L'\n', at);
        while (at != std::wstring::npos && at + 1 < t.size() && t[at + 1] != L'[') {
            const size_t end = t.find(L'\n', at + 1);
            const std::wstring line = t.substr(at + 1, end == std::wstring::npos ? std::wstring::npos : end - at - 1);
            const size_t eq = line.find(L'=');
            if (eq != std::wstring::npos)
                keys.push_back(line.substr(0, eq));
            at = end;
        }
        return keys;
    }

    static std::unique_ptr<DownloadRequestImp> exampleRequest()
    {
        auto r = std::make_unique<DownloadRequestImp>();
        r->setUrl(kWorkedExample, nullptr, L"sfx");
        r->setName(L"Example package \u00e4\u00f6\u4e2d");
        r->setDestDir(L"C:\\Games\\Example");
        r->setDate(L"2024-05-06 07:08");
        r->setCompressedSize(123456789012ull);
        r->setUncompressedSize(223456789012ull);
        r->setState(qvdlm::state::Paused);
        r->setBlockDownloadedSize(1000);
        r->setTotalDownloadedSize(5000);
        r->setExtractedSize(4000);
        r->setCheckpointId(17);
        r->setCheckpointDir(L"C:\\Games\\Example\\QV_1\\chk");
        r->setSaveInterval(1048576);
        r->setUseAkamai(true);
        r->setHttpFallback(false);
        r->setBlockId(1);
        return r;
    }

    qvtest::ScratchDir dir_{L"request-store"};
    std::wstring path_ = storePath();
    DownloadRequestLogImp store_;
};

} // namespace

TEST_F(StoreTest, OpenCreatesTheFolderAndAUtf16FileWithPreferences)
{
    const std::wstring nested = dir_ / L"a\\b\\download.info";
    path_ = nested;
    ASSERT_TRUE(store_.open(nested.c_str()));
    EXPECT_STREQ(store_.getPath(), nested.c_str());
    const std::wstring t = text();
    EXPECT_NE(t.find(L"[Preferences]"), std::wstring::npos);
    EXPECT_EQ(raw(L"Preferences", L"VERSION"), L"1.2");
}

TEST_F(StoreTest, OpenOnAnExistingFileChangesNothing)
{
    ASSERT_TRUE(writeStore(path_, L"[Preferences]\r\nVERSION=1.1\r\nDefaultDestDir=D:\\x\r\n"));
    const std::string before = bytes();
    ASSERT_TRUE(store_.open(path_.c_str()));
    EXPECT_EQ(bytes(), before);
}

TEST_F(StoreTest, OpenMakesARelativePathFull)
{
    wchar_t previous[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, previous);
    ASSERT_TRUE(SetCurrentDirectoryW(dir_.path().c_str()));
    const bool opened = store_.open(L"relative.info");
    SetCurrentDirectoryW(previous);
    ASSERT_TRUE(opened);
    EXPECT_STREQ(store_.getPath(), (dir_ / L"relative.info").c_str());
    EXPECT_TRUE(qvtest::fileExists(dir_ / L"relative.info"));
}

TEST_F(StoreTest, DefaultPathIsUnderLocalAppData)
{
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store, DownloadRequestLog::getInstance());
    ASSERT_TRUE(store->open(nullptr));
    wchar_t base[MAX_PATH];
    ASSERT_TRUE(SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, base)));
    const std::wstring expected = std::wstring(base) + L"\\Quorvel\\Tarnwick\\download.info";
    EXPECT_EQ(std::wstring(store->getPath()), expected);
    std::string b;
    ASSERT_TRUE(qvtest::readFile(expected, b));
    ASSERT_GE(b.size(), 2u);
    EXPECT_EQ(b.substr(0, 2), "\xFF\xFE");
}

TEST_F(StoreTest, NothingHappensBeforeOpenOrWithoutARequest)
{
    auto r = exampleRequest();
    EXPECT_FALSE(store_.add(r.get()));
    EXPECT_FALSE(store_.saveState(r.get(), qvdlm::state::Play));
    EXPECT_FALSE(store_.saveProgress(r.get(), qvdlm::state::Play, 1));
    EXPECT_FALSE(store_.exists(r->getId()));
    LoadedSet loaded;
    EXPECT_FALSE(store_.loadAll(loaded.requests));
    EXPECT_STREQ(store_.getPath(), L"");

    ASSERT_TRUE(store_.open(path_.c_str()));
    EXPECT_FALSE(store_.add(nullptr));
    EXPECT_FALSE(store_.saveLaunch(nullptr));
    DownloadRequestImp noUrl;
    EXPECT_FALSE(store_.add(&noUrl)) << "a request without URL has no section";
    EXPECT_FALSE(store_.load(nullptr, r.get()));
    EXPECT_FALSE(store_.load(r->getId(), nullptr));
    EXPECT_EQ(sectionNames(), std::vector<std::wstring>{L"Preferences"});
}

TEST_F(StoreTest, AddThenLoadGivesTheSameRequest)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto original = exampleRequest();
    ASSERT_TRUE(store_.add(original.get()));

    DownloadRequestImp loaded;
    ASSERT_TRUE(store_.load(original->getId(), &loaded));
    EXPECT_STREQ(loaded.getId(), original->getId());
    EXPECT_STREQ(loaded.getVersion(), L"1.2");
    EXPECT_STREQ(loaded.getOriginalUrl(), kWorkedExample);
    EXPECT_EQ(loaded.getUrls(), original->getUrls());
    EXPECT_STREQ(loaded.getName(), original->getName());
    EXPECT_STREQ(loaded.getDestDir(), original->getDestDir());
    EXPECT_STREQ(loaded.getAuthParamName(), L"authparam=");
    EXPECT_STREQ(loaded.getSessionParamName(), L"SESSION_ID=");
    EXPECT_EQ(loaded.getBlockCount(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_STREQ(loaded.getToken(i), original->getToken(i)) << i;
    EXPECT_EQ(loaded.getQueries(), original->getQueries());
    EXPECT_EQ(loaded.getCompressedSize(), 123456789012ull);
    EXPECT_EQ(loaded.getUncompressedSize(), 223456789012ull);
    EXPECT_EQ(loaded.getState(), qvdlm::state::Paused);
    EXPECT_EQ(loaded.getBlockDownloadedSize(), 1000u);
    // Stored as total plus the current block's part when first added.
    EXPECT_EQ(loaded.getTotalDownloadedSize(), 6000u);
    EXPECT_EQ(loaded.getExtractedSize(), 4000u);
    EXPECT_EQ(loaded.getCheckpointId(), 17u);
    EXPECT_STREQ(loaded.getCheckpointDir(), original->getCheckpointDir());
    EXPECT_EQ(loaded.getSaveInterval(), 1048576u);
    EXPECT_TRUE(loaded.getUseAkamai());
    EXPECT_FALSE(loaded.getHttpFallback());
    EXPECT_EQ(loaded.getBlockId(), 1);
    // DATE is stored only on completion; launch settings only for version 1.0 requests.
    EXPECT_STREQ(loaded.getDate(), L"");
    // The current URL is rebuilt from the loaded lists.
    original->setUseAkamai(false);
    loaded.setUseAkamai(false);
    ASSERT_NE(loaded.getUrl(false), nullptr);
    EXPECT_STREQ(loaded.getUrl(false), original->getUrl(false));
    EXPECT_NE(std::wstring(loaded.getUrl(false)).find(L"SESSION_ID=x_002_003&y=1_sfx"), std::wstring::npos);
}

TEST_F(StoreTest, AddWritesTheKeysInTheirOrder)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto current = exampleRequest();
    ASSERT_TRUE(store_.add(current.get()));
    const std::vector<std::wstring> expected = {
        L"VERSION", L"ORIGINAL_URL", L"URLS", L"NAME", L"DEST_DIR", L"AUTH_TOKEN", L"REPORTING_TOKEN", L"BLOCK_ID",
        L"BLOCK_COUNT", L"TOKENS", L"QUERIES", L"COMPRESSED_SIZE", L"UNCOMPRESSED_SIZE", L"STATE",
        L"BLOCK_DOWNLOADED_SIZE", L"TOTAL_DOWNLOADED_SIZE", L"EXTRACTED_SIZE", L"CHKPT_ID", L"CHKPT_DIR",
        L"SAVE_INTERVAL", L"USE_AKAMAI", L"HTTP_FALLBACK"};
    EXPECT_EQ(keysInFileOrder(current->getId()), expected);
    EXPECT_EQ(raw(current->getId(), L"URLS"),
              current->getUrls()[0] + L";" + current->getUrls()[1] + L";" + current->getUrls()[2]);
    EXPECT_EQ(raw(current->getId(), L"TOKENS"), std::wstring(current->getToken(0)) + L"," + current->getToken(1) +
                                                    L"," + current->getToken(2) + L",");
    EXPECT_EQ(raw(current->getId(), L"STATE"), L"536870915");
    EXPECT_EQ(raw(current->getId(), L"USE_AKAMAI"), L"1");
    EXPECT_EQ(raw(current->getId(), L"HTTP_FALLBACK"), L"0");

    DownloadRequestImp old;
    old.setUrl(L"http://h.example/old/pkg.bin", nullptr, nullptr);
    old.setVersion(L"1.0");
    old.setDestDir(L"C:\\old");
    old.setName(L"old");
    old.setExePath(L"setup.exe");
    old.setExeParam(L"/s");
    old.setAutoOpen(true);
    ASSERT_TRUE(store_.add(&old));
    const std::vector<std::wstring> keys = keysInFileOrder(old.getId());
    ASSERT_GE(keys.size(), 8u);
    EXPECT_EQ(std::vector<std::wstring>(keys.begin() + 4, keys.begin() + 8),
              (std::vector<std::wstring>{L"DEST_DIR", L"EXE_PATH", L"EXE_PARAM", L"AUTO_OPEN"}));
    DownloadRequestImp back;
    ASSERT_TRUE(store_.load(old.getId(), &back));
    EXPECT_STREQ(back.getExePath(), L"setup.exe");
    EXPECT_STREQ(back.getExeParam(), L"/s");
    EXPECT_TRUE(back.getAutoOpen());
    EXPECT_EQ(raw(old.getId(), L"TOKENS"), L"");
}

TEST_F(StoreTest, AddNeverOverwritesAStoredRequest)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto r = exampleRequest();
    ASSERT_TRUE(store_.add(r.get()));
    EXPECT_TRUE(store_.exists(r->getId()));
    const std::string before = bytes();
    r->setName(L"another name");
    EXPECT_TRUE(store_.add(r.get()));
    EXPECT_EQ(bytes(), before);

    // A section without a destination counts as absent and is written over.
    WritePrivateProfileStringW(r->getId(), L"DEST_DIR", L"", path_.c_str());
    EXPECT_FALSE(store_.exists(r->getId()));
    EXPECT_TRUE(store_.add(r.get()));
    EXPECT_EQ(raw(r->getId(), L"NAME"), L"another name");
}

TEST_F(StoreTest, SaveStateSkipsPassingStatesAndResetsProgressOnAbort)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto r = exampleRequest();
    const wchar_t* id = r->getId();
    ASSERT_TRUE(store_.add(r.get()));

    EXPECT_TRUE(store_.saveState(r.get(), qvdlm::state::Play));
    EXPECT_EQ(raw(id, L"STATE"), L"536870914");
    EXPECT_TRUE(store_.saveState(r.get(), qvdlm::state::Init));
    EXPECT_TRUE(store_.saveState(r.get(), qvdlm::state::Exiting));
    EXPECT_EQ(raw(id, L"STATE"), L"536870914");
    EXPECT_EQ(raw(id, L"DATE"), L"<absent>");

    EXPECT_TRUE(store_.saveState(r.get(), qvdlm::state::Aborting));
    EXPECT_EQ(raw(id, L"STATE"), L"536870918");
    for (const wchar_t* key : {L"BLOCK_ID", L"BLOCK_DOWNLOADED_SIZE", L"TOTAL_DOWNLOADED_SIZE", L"EXTRACTED_SIZE", L"CHKPT_ID"})
        EXPECT_EQ(raw(id, key), L"0") << qvtest::narrow(key);
    EXPECT_EQ(raw(id, L"DATE"), L"<absent>");

    EXPECT_TRUE(store_.saveState(r.get(), qvdlm::state::Completed));
    EXPECT_EQ(raw(id, L"STATE"), L"0");
    EXPECT_EQ(raw(id, L"DATE"), L"2024-05-06 07:08");
}

TEST_F(StoreTest, SaveProgressWritesTheCountersAndTheGivenCheckpoint)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto r = exampleRequest();
    const wchar_t* id = r->getId();
    ASSERT_TRUE(store_.add(r.get()));
    r->setBlockId(2);
    r->setBlockDownloadedSize(777);
    r->setTotalDownloadedSize(8888);
    r->setExtractedSize(99999);

    EXPECT_TRUE(store_.saveProgress(r.get(), qvdlm::state::Play, 42));
    EXPECT_EQ(raw(id, L"BLOCK_ID"), L"2");
    EXPECT_EQ(raw(id, L"BLOCK_DOWNLOADED_SIZE"), L"777");
    EXPECT_EQ(raw(id, L"TOTAL_DOWNLOADED_SIZE"), L"8888") << "without the block part";
    EXPECT_EQ(raw(id, L"EXTRACTED_SIZE"), L"99999");
    EXPECT_EQ(raw(id, L"CHKPT_ID"), L"42") << "the given id, not the request's";
    EXPECT_EQ(raw(id, L"STATE"), L"536870914");

    r->setBlockDownloadedSize(1);
    EXPECT_TRUE(store_.saveProgress(r.get(), qvdlm::state::Exiting, 43));
    EXPECT_EQ(raw(id, L"CHKPT_ID"), L"43");
    EXPECT_EQ(raw(id, L"STATE"), L"536870914") << "exiting is never stored";

    const std::string before = bytes();
    EXPECT_TRUE(store_.saveProgress(r.get(), qvdlm::state::Aborting, 44));
    EXPECT_EQ(bytes(), before);
}

TEST_F(StoreTest, SaveLaunchDestDirAndUseAkamaiWriteTheirKeys)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto r = exampleRequest();
    const wchar_t* id = r->getId();
    ASSERT_TRUE(store_.add(r.get()));
    EXPECT_EQ(raw(id, L"EXE_PATH"), L"<absent>");
    r->setExePath(L"run.exe");
    r->setExeParam(L"-x");
    r->setAutoOpen(true);
    r->setDestDir(L"E:\\new");
    r->setUseAkamai(false);
    EXPECT_TRUE(store_.saveLaunch(r.get()));
    EXPECT_TRUE(store_.saveDestDir(r.get()));
    EXPECT_TRUE(store_.saveUseAkamai(r.get()));
    EXPECT_EQ(raw(id, L"EXE_PATH"), L"run.exe");
    EXPECT_EQ(raw(id, L"EXE_PARAM"), L"-x");
    EXPECT_EQ(raw(id, L"AUTO_OPEN"), L"1");
    EXPECT_EQ(raw(id, L"DEST_DIR"), L"E:\\new");
    EXPECT_EQ(raw(id, L"USE_AKAMAI"), L"0");
}

TEST_F(StoreTest, RemoveDeletesTheWholeSection)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    auto r = exampleRequest();
    ASSERT_TRUE(store_.add(r.get()));
    EXPECT_TRUE(store_.remove(r->getId()));
    EXPECT_FALSE(store_.exists(r->getId()));
    EXPECT_EQ(raw(r->getId(), L"VERSION"), L"<absent>");
    EXPECT_EQ(sectionNames(), std::vector<std::wstring>{L"Preferences"});
}

TEST_F(StoreTest, StoredTokensLoadInOrder)
{
    ASSERT_TRUE(writeStore(path_, L"[Preferences]\r\nVERSION=1.2\r\n"
                                  L"[http://h.example/a?authparam=%s]\r\nVERSION=1.2\r\nSTATE=536870915\r\n"
                                  L"ORIGINAL_URL=http://h.example/a\r\n"
                                  L"URLS=http://h.example/a?authparam=%s;http://h.example/b?authparam=%s\r\n"
                                  L"NAME=two\r\nDEST_DIR=C:\\d\r\nBLOCK_COUNT=2\r\nTOKENS=100_aa,200_bb,\r\n"
                                  L"QUERIES=q=1,q=2,\r\nBLOCK_ID=1\r\n"));
    ASSERT_TRUE(store_.open(path_.c_str()));
    DownloadRequestImp r;
    ASSERT_TRUE(store_.load(L"http://h.example/a?authparam=%s", &r));
    EXPECT_STREQ(r.getToken(0), L"100_aa");
    EXPECT_STREQ(r.getToken(1), L"200_bb");
    EXPECT_EQ(r.getToken(2), nullptr);
    EXPECT_EQ(r.getQueries(), (WStringList{L"q=1", L"q=2"}));
    EXPECT_STREQ(r.getUrl(false), L"http://h.example/b?authparam=200_bb&q=2");
}

TEST_F(StoreTest, LoadAllSkipsPreferencesAndDeletesSectionsWithoutName)
{
    ASSERT_TRUE(writeStore(path_, L"[Preferences]\r\nVERSION=1.2\r\nDefaultDestDir=C:\\dl\r\n"
                                  L"[http://h.example/good]\r\nVERSION=1.2\r\nSTATE=536870919\r\n"
                                  L"ORIGINAL_URL=http://h.example/good\r\nURLS=http://h.example/good\r\n"
                                  L"NAME=good\r\nDEST_DIR=C:\\d\r\n"
                                  L"[HTTPS://h.example/noname]\r\nVERSION=1.2\r\nSTATE=536870919\r\n"
                                  L"ORIGINAL_URL=https://h.example/noname\r\nURLS=https://h.example/noname\r\n"
                                  L"DEST_DIR=C:\\d\r\n"
                                  L"[Other]\r\nNAME=kept\r\n"));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getName(), L"good");
    EXPECT_EQ(loaded.only()->getState(), qvdlm::state::Aborted);
    EXPECT_EQ(sectionNames(), (std::vector<std::wstring>{L"Preferences", L"http://h.example/good", L"Other"}));
    EXPECT_EQ(raw(L"Preferences", L"DefaultDestDir"), L"C:\\dl");

    DownloadRequestIterator it(loaded.requests);
    ASSERT_TRUE(it.hasNext());
    EXPECT_EQ(it.next(), loaded.only());
    EXPECT_FALSE(it.hasNext());
}

TEST_F(StoreTest, FileStaysUtf16AfterManyWrites)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    std::vector<std::unique_ptr<DownloadRequestImp>> requests;
    for (int i = 0; i < 3; ++i) {
        auto r = std::make_unique<DownloadRequestImp>();
        r->setUrl((L"http://h.example/\u00fc" + std::to_wstring(i) + L".bin").c_str(), nullptr, nullptr);
        r->setName((L"Name \u4e2d\u6587 " + std::to_wstring(i)).c_str());
        r->setDestDir(L"C:\\\u00e4");
        ASSERT_TRUE(store_.add(r.get()));
        requests.push_back(std::move(r));
    }
    for (int round = 0; round < 25; ++round) {
        for (auto& r : requests) {
            r->setBlockDownloadedSize(static_cast<uint64_t>(round) * 1000);
            store_.saveProgress(r.get(), qvdlm::state::Play, static_cast<uint32_t>(round));
            store_.saveState(r.get(), round % 2 ? qvdlm::state::Paused : qvdlm::state::Play);
        }
    }
    const std::string b = bytes();
    ASSERT_GE(b.size(), 2u);
    EXPECT_EQ(b.substr(0, 2), "\xFF\xFE");
    EXPECT_EQ(b.size() % 2, 0u);
    EXPECT_NE(b.find(utf16(L"NAME=Name \u4e2d\u6587 2")), std::string::npos);
    EXPECT_NE(b.find(utf16(L"CHKPT_ID=24")), std::string::npos);
    EXPECT_EQ(b.find("CHKPT_ID="), std::string::npos) << "no ANSI text";
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_EQ(loaded.requests.size(), 3u);
    for (DownloadRequest* r : loaded.requests)
        EXPECT_EQ(std::wstring(r->getName()).substr(0, 7), L"Name \u4e2d\u6587");
}

TEST_F(StoreTest, AFileDeletedOrEmptiedAfterOpenIsStartedAgainWithItsMark)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    ASSERT_TRUE(DeleteFileW(path_.c_str()));
    auto r = exampleRequest();
    ASSERT_TRUE(store_.add(r.get()));
    EXPECT_NE(text().find(r->getName()), std::wstring::npos);
    EXPECT_EQ(raw(L"Preferences", L"VERSION"), L"1.2");

    const std::wstring emptied = dir_ / L"emptied.info";
    ASSERT_TRUE(qvtest::writeFile(emptied, ""));
    path_ = emptied;
    ASSERT_TRUE(store_.open(emptied.c_str()));
    ASSERT_TRUE(store_.add(r.get()));
    EXPECT_NE(text().find(r->getName()), std::wstring::npos);
}

TEST_F(StoreTest, LineBreaksInValuesCannotMakeNewKeysOrSections)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    DownloadRequestImp r;
    r.setUrl(L"http://h.example/x.bin", nullptr, nullptr);
    r.setName(L"a\r\n[http://evil.example/]\r\nNAME=x");
    r.setDestDir(L"C:\\d\nSTATE=0");
    ASSERT_TRUE(store_.add(&r));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getName(), L"a  [http://evil.example/]  NAME=x");
    EXPECT_EQ(loaded.only()->getState(), qvdlm::state::Pending);
}

TEST_F(StoreTest, OverLongValuesComeBackCut)
{
    const std::wstring longName(5000, L'n');
    const std::wstring longToken(100, L't');
    const std::wstring longQuery(1500, L'q');
    ASSERT_TRUE(writeStore(path_, L"[http://h.example/a]\r\nVERSION=1.2\r\nSTATE=536870915\r\n"
                                  L"ORIGINAL_URL=http://h.example/a\r\nURLS=http://h.example/a?authparam=%s\r\n"
                                  L"NAME=" + longName + L"\r\nDEST_DIR=C:\\d\r\nBLOCK_COUNT=1\r\n"
                                  L"TOKENS=" + longToken + L",\r\nQUERIES=" + longQuery + L",\r\n"));
    ASSERT_TRUE(store_.open(path_.c_str()));
    DownloadRequestImp r;
    ASSERT_TRUE(store_.load(L"http://h.example/a", &r));
    EXPECT_EQ(std::wstring(r.getName()), longName);
    EXPECT_EQ(std::wstring(r.getToken(0)), longToken);
    ASSERT_EQ(r.getQueries().size(), 1u);
    EXPECT_EQ(r.getQueries()[0], longQuery);
}

// Damaged files: what is valid loads, invalid request sections go, nothing crashes.

namespace {

std::wstring section(const std::wstring& name, const std::wstring& extra, const std::wstring& urls = L"")
{
    return L"[" + name + L"]\r\nVERSION=1.2\r\nSTATE=536870915\r\nORIGINAL_URL=" + name + L"\r\nURLS=" +
           (urls.empty() ? name : urls) + L"\r\nNAME=n\r\nDEST_DIR=C:\\d\r\n" + extra;
}

} // namespace

TEST_F(StoreTest, LoadAllReadsAListOfSectionsLongerThanItsFirstBuffer)
{
    constexpr int kCount = 60;
    std::wstring file = L"[Preferences]\r\nVERSION=1.2\r\n";
    for (int i = 0; i < kCount; ++i)
        file += section(L"http://downloads.example.com/packages/long/path/name/number/" + std::to_wstring(i) + L".bin", L"");
    ASSERT_TRUE(writeStore(path_, file));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    EXPECT_EQ(loaded.requests.size(), static_cast<size_t>(kCount));
}

TEST_F(StoreTest, DamagedTruncatedFileLoadsTheCompleteSections)
{
    const std::wstring full = section(L"http://h.example/1", L"") + section(L"http://h.example/2", L"");
    const std::string cut = "\xFF\xFE" + utf16(full.substr(0, full.find(L"NAME=n", full.find(L"h.example/2")))) + "N";
    ASSERT_TRUE(qvtest::writeFile(path_, cut));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getId(), L"http://h.example/1");
    EXPECT_EQ(raw(L"http://h.example/2", L"VERSION"), L"<absent>") << "the cut section is removed";
}

TEST_F(StoreTest, DamagedAnsiFileIsReadAsAnsi)
{
    const std::string ansi = qvtest::narrow(section(L"http://h.example/ansi", L""));
    ASSERT_TRUE(qvtest::writeFile(path_, ansi));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getName(), L"n");
}

TEST_F(StoreTest, DamagedBinaryGarbageLoadsNothingAndDoesNotCrash)
{
    for (uint32_t seed : {1u, 2u, 3u}) {
        path_ = dir_ / (L"garbage" + std::to_wstring(seed) + L".info");
        std::string garbage = qvtest::patternBytes(6000, seed);
        if (seed == 2)
            garbage = "\xFF\xFE" + garbage; // a byte-order mark in front of nonsense
        ASSERT_TRUE(qvtest::writeFile(path_, garbage));
        DownloadRequestLogImp store;
        ASSERT_TRUE(store.open(path_.c_str()));
        LoadedSet loaded;
        EXPECT_TRUE(store.loadAll(loaded.requests));
        EXPECT_TRUE(loaded.requests.empty());
    }
}

TEST_F(StoreTest, DamagedGarbageLinesInsideASectionAreIgnored)
{
    ASSERT_TRUE(writeStore(path_, L"just words\r\n" +
                                      section(L"http://h.example/g", L"not a key\r\n=novalue\r\n;comment\r\n[[[\r\n"
                                                                     L"COMPRESSED_SIZE=5\r\n")));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_EQ(loaded.only()->getCompressedSize(), 5u);
}

TEST_F(StoreTest, DamagedDuplicateSectionsLoadOnceAndRemoveDeletesEveryCopy)
{
    ASSERT_TRUE(writeStore(path_, section(L"http://h.example/dup", L"CHKPT_ID=1\r\n") +
                                      section(L"http://h.example/other", L"") +
                                      section(L"HTTP://H.EXAMPLE/DUP", L"CHKPT_ID=2\r\n")));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    EXPECT_EQ(loaded.requests.size(), 2u);
    EXPECT_TRUE(store_.remove(L"http://h.example/dup"));
    for (const std::wstring& name : sectionNames())
        EXPECT_NE(CompareStringOrdinal(name.c_str(), -1, L"http://h.example/dup", -1, TRUE), CSTR_EQUAL);
    EXPECT_TRUE(store_.exists(L"http://h.example/other"));
}

TEST_F(StoreTest, DamagedBlockCountFallsBackToTheStoredUrls)
{
    for (const wchar_t* count : {L"0", L"-5", L"99999999", L"abc", L"", L"2147483648"}) {
        SCOPED_TRACE(qvtest::narrow(count));
        path_ = dir_ / (L"count" + std::wstring(count) + L".info");
        const std::wstring urls = L"http://h.example/1?authparam=%s;http://h.example/2?authparam=%s";
        ASSERT_TRUE(writeStore(path_, section(L"http://h.example/1?authparam=%s",
                                              L"BLOCK_COUNT=" + std::wstring(count) +
                                                  L"\r\nTOKENS=t1,t2,\r\nQUERIES=a,b,\r\nBLOCK_ID=1\r\n",
                                              urls)));
        DownloadRequestLogImp store;
        ASSERT_TRUE(store.open(path_.c_str()));
        LoadedSet loaded;
        ASSERT_TRUE(store.loadAll(loaded.requests));
        ASSERT_NE(loaded.only(), nullptr);
        DownloadRequest* r = loaded.only();
        EXPECT_EQ(r->getBlockCount(), 2);
        EXPECT_STREQ(r->getToken(1), L"t2");
        EXPECT_STREQ(r->getUrl(false), L"http://h.example/2?authparam=t2&b");
    }
}

TEST_F(StoreTest, DamagedNumbersKeepTheirDefaults)
{
    ASSERT_TRUE(writeStore(path_, section(L"http://h.example/n",
                                          L"COMPRESSED_SIZE=abc\r\nUNCOMPRESSED_SIZE=-5\r\n"
                                          L"EXTRACTED_SIZE=99999999999999999999999\r\nSAVE_INTERVAL=12x\r\n"
                                          L"CHKPT_ID=4294967296\r\nTOTAL_DOWNLOADED_SIZE=18446744073709551615\r\n"
                                          L"BLOCK_ID=7\r\n")));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    DownloadRequest* r = loaded.only();
    EXPECT_EQ(r->getCompressedSize(), 0u);
    EXPECT_EQ(r->getUncompressedSize(), 0u);
    EXPECT_EQ(r->getExtractedSize(), 0u);
    EXPECT_EQ(r->getSaveInterval(), DownloadRequestImp::kDefaultSaveInterval);
    EXPECT_EQ(r->getCheckpointId(), 0u);
    EXPECT_EQ(r->getTotalDownloadedSize(), UINT64_MAX);
    EXPECT_EQ(r->getBlockId(), 0) << "a block past the request counts as absent";
}

TEST_F(StoreTest, DamagedStateRemovesTheSection)
{
    ASSERT_TRUE(writeStore(path_, L"[http://h.example/s]\r\nVERSION=1.2\r\nSTATE=playing\r\nORIGINAL_URL=x\r\n"
                                  L"URLS=http://h.example/s\r\nNAME=n\r\nDEST_DIR=C:\\d\r\n" +
                                      section(L"http://h.example/ok", L"")));
    ASSERT_TRUE(store_.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(store_.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getId(), L"http://h.example/ok");
    EXPECT_EQ(raw(L"http://h.example/s", L"NAME"), L"<absent>");
}

// A writer that dies while the profile functions rewrite the file leaves its copy of the file as it
// was before that write; the next open puts the copy back instead of loading a cut file.
TEST_F(StoreTest, AStoreCutByAWriterThatDiedComesBackFromItsBackup)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    const auto request = exampleRequest();
    ASSERT_TRUE(store_.add(request.get()));
    const std::wstring backup = path_ + L".bak";
    ASSERT_TRUE(CopyFileW(path_.c_str(), backup.c_str(), FALSE));
    ASSERT_TRUE(writeStore(path_, L"[Preferences]\r\nVERSION=1.2\r\n"));

    DownloadRequestLogImp next;
    ASSERT_TRUE(next.open(path_.c_str()));
    LoadedSet loaded;
    ASSERT_TRUE(next.loadAll(loaded.requests));
    ASSERT_NE(loaded.only(), nullptr);
    EXPECT_STREQ(loaded.only()->getId(), request->getId());
    EXPECT_EQ(loaded.only()->getCheckpointId(), 17u);
    EXPECT_FALSE(qvtest::fileExists(backup));
}

TEST_F(StoreTest, ABackupHeldByALivingWriterIsLeftAlone)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    const auto request = exampleRequest();
    ASSERT_TRUE(store_.add(request.get()));
    const std::wstring backup = path_ + L".bak";
    ASSERT_TRUE(CopyFileW(path_.c_str(), backup.c_str(), FALSE));
    qv::UniqueFile held(CreateFileW(backup.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(held);
    ASSERT_TRUE(writeStore(path_, L"[Preferences]\r\nVERSION=1.2\r\n"));

    DownloadRequestLogImp other;
    ASSERT_TRUE(other.open(path_.c_str()));
    EXPECT_EQ(sectionNames(), std::vector<std::wstring>{L"Preferences"}) << "a living writer's file is not rolled back";
    held.reset();
    EXPECT_TRUE(qvtest::fileExists(backup));
}

TEST_F(StoreTest, WritesLeaveNoBackupBehind)
{
    ASSERT_TRUE(store_.open(path_.c_str()));
    const auto request = exampleRequest();
    ASSERT_TRUE(store_.add(request.get()));
    ASSERT_TRUE(store_.saveProgress(request.get(), qvdlm::state::Play, 18));
    ASSERT_TRUE(store_.saveState(request.get(), qvdlm::state::Paused));
    EXPECT_EQ(raw(request->getId(), L"CHKPT_ID"), L"18");
    EXPECT_FALSE(qvtest::fileExists(path_ + L".bak"));
    EXPECT_FALSE(qvtest::fileExists(path_ + L".bak.tmp"));
    ASSERT_TRUE(store_.remove(request->getId()));
    EXPECT_FALSE(qvtest::fileExists(path_ + L".bak"));
}
