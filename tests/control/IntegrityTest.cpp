// What must hold when things go wrong: a checkpoint commits whole or not at all and a failed one leaves
// the previous one in force; a stop or discard leaves no half checkpoint named; a package that cannot be
// unpacked whole never ends as completed (a link that cannot be made does not fail it); long stored
// values come back whole; a hostile dictionary size is refused; an error number is never read as text.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "DownloadMgr.h"
#include "DownloadRequestLog.h"
#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "control/DownloadImp.h"
#include "log/EventPublisherImpl.h"
#include "request/DownloadRequestLogImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"
#include "support/TestServers.h"

using namespace qvdlm;

namespace {

// A stage whose snapshot is 16 bytes, or that cannot make one.
class Part final : public Stream {
public:
    explicit Part(bool good) : good_(good) {}
    void close() override {}
    bool restoreState(const StreamStateHeader*) override { return true; }
    uint64_t saveState(StreamStateHeader* out, uint64_t* capacity) override
    {
        if (!good_)
            return 0;
        if (out && capacity && *capacity >= 16) {
            std::memset(out, 0, 16);
            out->size = 16;
        }
        if (capacity)
            *capacity = 16;
        return 16;
    }

private:
    bool good_;
};

struct StageCall {
    const wchar_t* name;
    bool ask;
    bool commit;
};
// The order in which a package's stages write their parts: the source opens, the sink commits.
const StageCall kStages[] = {{L"Http", true, false}, {L"Lzma", false, false}, {L"xTar", false, true}};

class CheckpointJob {
public:
    explicit CheckpointJob(const std::wstring& dir) : request_(new FakeRequest(L"http://localhost/p.tar.lzma2"))
    {
        request_->setCheckpointDir(dir.c_str());
        request_->setSaveInterval(0);
        job_ = makeDownload(request_, nullptr, JobEnvironment{});
    }
    ~CheckpointJob() { delete job_; }

    // The stages write checkpoint id in turn; the one at failing (-1: none) cannot make its snapshot,
    // and only the first `calls` of them get to write. Answers the last call's result.
    int take(unsigned id, int failing, int calls = 3)
    {
        job_->setBlockDownloadedSize(id); // more than at the last checkpoint: one is due
        int result = 0;
        for (int i = 0; i < calls; ++i) {
            Part part(i != failing);
            result = job_->saveCheckpoint(kStages[i].name, id, &part, kStages[i].ask, kStages[i].commit);
        }
        return result;
    }
    DownloadImp* job() { return job_; }
    FakeRequest* request() { return request_; }

private:
    FakeRequest* request_;
    DownloadImp* job_ = nullptr;
};

// The names of the files in folder that begin with prefix.
std::vector<std::wstring> filesStartingWith(const std::wstring& folder, const std::wstring& prefix)
{
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"\\" + prefix + L"*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE)
        return names;
    do
        names.push_back(data.cFileName);
    while (FindNextFileW(find, &data));
    FindClose(find);
    return names;
}

class FailedPart : public ::testing::TestWithParam<int> {};

TEST_P(FailedPart, LeavesThePreviousCheckpointInForceAndTheNextOneCommits)
{
    qvtest::ScratchDir dir(L"integrity-part" + std::to_wstring(GetParam()));
    CheckpointJob job(dir.path());
    ASSERT_TRUE(job.take(1, -1));
    ASSERT_EQ(filesStartingWith(dir.path(), L"00000001_").size(), 4u); // three stages and the job's record

    EXPECT_FALSE(job.take(2, GetParam()));
    EXPECT_EQ(filesStartingWith(dir.path(), L"00000001_").size(), 4u);
    EXPECT_TRUE(filesStartingWith(dir.path(), L"00000002_").empty());
    EXPECT_TRUE(filesStartingWith(dir.path(), L"_tmp_").empty());
    EXPECT_EQ(job.request()->getCheckpointId(), 1u);

    EXPECT_TRUE(job.take(3, -1));
    EXPECT_EQ(filesStartingWith(dir.path(), L"00000003_").size(), 4u);
    EXPECT_TRUE(filesStartingWith(dir.path(), L"00000001_").empty());
    EXPECT_EQ(job.request()->getCheckpointId(), 3u);
}

INSTANTIATE_TEST_SUITE_P(EachStage, FailedPart, ::testing::Values(0, 1, 2));

class StopInFlight : public ::testing::TestWithParam<bool> {};

TEST_P(StopInFlight, LeavesNoUncommittedCheckpointNamed)
{
    const bool discard = GetParam();
    qvtest::ScratchDir dir(discard ? L"integrity-discard" : L"integrity-stop");
    CheckpointJob job(dir.path());
    ASSERT_TRUE(job.take(1, -1));
    job.take(2, -1, 1); // the source has written its part of checkpoint 2
    ASSERT_TRUE(job.job()->abort(discard));
    job.take(2, -1, 3); // the stages that were late
    EXPECT_EQ(job.request()->getCheckpointId(), discard ? 0u : 1u);
    EXPECT_TRUE(filesStartingWith(dir.path(), L"00000002_").empty());
    EXPECT_TRUE(filesStartingWith(dir.path(), L"_tmp_").empty());
    EXPECT_EQ(filesStartingWith(dir.path(), L"00000001_").size(), discard ? 0u : 4u);
}

INSTANTIATE_TEST_SUITE_P(KeepOrDiscard, StopInFlight, ::testing::Bool());

// Packages made by the test fixture with GNU tar and xz (see CMakeLists.txt), served by nginx.
struct PackageCase {
    const wchar_t* name;
    const wchar_t* path; // below nginx's root
    uint32_t state;
    uint32_t status;
    std::vector<const wchar_t*> present; // relative to the test's folder, whose "dest" is the destination
    std::vector<const wchar_t*> absent;
};

const PackageCase kPackages[] = {
    // Three files, the second header damaged: the first file must not reach the destination.
    {L"bad-header", L"integrity/bad-header.tar.lzma2", state::Aborted, 0x28000007, {}, {L"dest\\a.txt", L"dest\\c.txt"}},
    // The second entry is "../b.txt".
    {L"escape", L"integrity/escape.tar.lzma2", state::Aborted, 0x28000002, {}, {L"dest\\a.txt", L"b.txt"}},
    // A valid property byte followed by bytes that are not LZMA2.
    {L"corrupt", L"integrity/corrupt.tar.lzma2", state::Aborted, 0x250000FF, {}, {}},
    // A file and a symbolic link to it: a copy stands in where the link cannot be made.
    {L"link", L"integrity/link.tar.lzma2", state::Completed, 0, {L"dest\\a.txt", L"dest\\link.txt"}, {}},
    // A plain file whose path is one character shorter than ".tar.lzma2" is no package.
    {L"nine", L"news.txt", state::Completed, 0, {L"dest\\news.txt"}, {}},
};

class Packages : public ::testing::TestWithParam<PackageCase> {};

TEST_P(Packages, EndFailedWithTheirErrorOrComplete)
{
    const PackageCase& c = GetParam();
    qvtest::ScratchDir scratch(std::wstring(L"integrity-") + c.name);
    DownloadRequestLog::getInstance()->open((scratch / L"download.info").c_str());
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    DownloadRequest* r = QvDLM::createDownloadRequest();
    r->setUrl(qvtest::nginxUrl(c.path).c_str(), nullptr, nullptr);
    r->setName(c.name);
    r->setDestDir((scratch / L"dest").c_str());
    Download* d = manager->addDownload(r);
    ASSERT_NE(d, nullptr);
    ASSERT_TRUE(manager->startDownload(d));
    for (int i = 0; i < 1200; ++i) {
        const unsigned s = d->getState();
        if ((s == state::Completed || s == state::Aborted) && !manager->anyRunning())
            break;
        Sleep(50);
    }
    EXPECT_EQ(d->getState(), c.state) << std::hex << d->getState() << " " << d->getStatus();
    EXPECT_EQ(d->getStatus(), c.status) << std::hex << d->getStatus();
    for (const wchar_t* path : c.present)
        EXPECT_TRUE(qvtest::fileExists(scratch / path)) << qvtest::narrow(path);
    for (const wchar_t* path : c.absent)
        EXPECT_FALSE(qvtest::fileExists(scratch / path)) << qvtest::narrow(path);
    if (c.state == state::Completed && c.present.size() == 2) {
        std::string target, link;
        EXPECT_TRUE(qvtest::readFile(scratch / L"dest\\a.txt", target) && qvtest::readFile(scratch / L"dest\\link.txt", link));
        EXPECT_EQ(link, target);
    }
    QvDLM::destroy(manager);
}

INSTANTIATE_TEST_SUITE_P(Unpacking, Packages, ::testing::ValuesIn(kPackages));

TEST(Store, ValuesLongerThanItsFirstBufferComeBackWhole)
{
    qvtest::ScratchDir dir(L"integrity-store");
    const std::wstring path = dir / L"download.info";
    DownloadRequestLogImp store;
    ASSERT_TRUE(store.open(path.c_str()));
    const int blocks = 60;
    auto letter = [](int i) { return static_cast<wchar_t>(L'a' + i % 26); };
    std::wstring urls, tokens, queries;
    for (int i = 1; i <= blocks; ++i) {
        const std::wstring number = std::to_wstring(i);
        urls += (i > 1 ? L";" : L"") + std::wstring(L"http://localhost/") + std::wstring(80, L'p') + L"_" +
                std::wstring(3 - number.size(), L'0') + number + L"_060.tar.lzma2";
        tokens += std::wstring(100, letter(i)) + L",";
        queries += std::wstring(1100, letter(i)) + L",";
    }
    const std::wstring section = urls.substr(0, urls.find(L';'));
    const std::pair<const wchar_t*, std::wstring> keys[] = {
        {L"VERSION", L"1.2"},  {L"STATE", L"536870913"}, {L"ORIGINAL_URL", section}, {L"URLS", urls},
        {L"NAME", L"big"},     {L"DEST_DIR", dir.path()}, {L"BLOCK_COUNT", std::to_wstring(blocks)},
        {L"TOKENS", tokens},   {L"QUERIES", queries}};
    for (const auto& [key, value] : keys)
        WritePrivateProfileStringW(section.c_str(), key, value.c_str(), path.c_str());

    DownloadRequest* r = QvDLM::createDownloadRequest();
    ASSERT_TRUE(store.load(section.c_str(), r));
    ASSERT_EQ(r->getUrls().size(), 60u);
    EXPECT_EQ(r->getUrls().back(), urls.substr(urls.rfind(L';') + 1));
    ASSERT_NE(r->getToken(59), nullptr);
    EXPECT_EQ(std::wstring(r->getToken(59)), std::wstring(100, letter(60)));
    ASSERT_EQ(r->getQueries().size(), 60u);
    EXPECT_EQ(r->getQueries().back(), std::wstring(1100, letter(60)));
    QvDLM::destroy(r);
}

TEST(Decoder, RefusesADictionaryAboveOnePointFiveGiBBeforeAllocatingIt)
{
    const struct {
        uint8_t property;
        uint32_t status; // 4: unsupported
    } cases[] = {{22, 0}, {38, 4}, {40, 4}};
    for (const auto& c : cases) {
        LZMA2StreamWriterImp decoder;
        const uint8_t first[] = {c.property};
        decoder.writeBytes(first, 1);
        EXPECT_EQ(decoder.lastStatus(), c.status) << int(c.property);
    }
}

TEST(Log, AnErrorEventCarriesTextOnlyWhenTheLibraryPublishedText)
{
    ASSERT_NE(LoadLibraryW(L"QvDLMRes.dll"), nullptr);
    qvtest::ScratchDir dir(L"integrity-log");
    Log* log = QvDLM::createLog((dir / L"log.txt").c_str());
    ASSERT_NE(log, nullptr);
    publishEvent(nullptr, event::Error, 0x10005);      // an error number of a delivery session
    publishEvent(nullptr, event::Error, 0x7FFF0000u); // any number at all
    publishText(nullptr, L"the disk went away", event::Error);
    QvDLM::destroy(log);
    std::string bytes;
    ASSERT_TRUE(qvtest::readFile(dir / L"log.txt", bytes));
    const std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
    EXPECT_NE(text.find(L"ERROR:\t the disk went away"), std::wstring::npos);
}

} // namespace
