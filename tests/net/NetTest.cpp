// The net subsystem: URL tokens against the tests' own MD5, the loose trusted-domain rule and validateUrl against the test
// servers; delivery through the NetSession client with the scripted QvDownload.dll double beside the program (the module
// loaded at run time only, sessions and their errors, releases, the client's start and installer, whole downloads).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "QvDLM.h"
#include "StartAkamai.h"
#include "UrlAuth.h"
#include "UrlValidation.h"
#include "net/NetSessionDelivery.h"
#include "net/UrlValidationInternal.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"
#include "support/Md5.h"
#include "support/MockDownload.h"
#include "support/TestServers.h"

using ::testing::_;
using ::testing::Return;
using qvtest::narrow;

namespace {

const std::string kServe = "http://127.0.0.1:9421/api?function=serveFile&cid=0&url=";

std::wstring installerPath()
{
    wchar_t path[MAX_PATH];
    const std::wstring self(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return self.substr(0, self.find_last_of(L'\\')) + L"\\NSSetup.exe";
}

// A copy of this program is the installer's stand-in, NSSetup.exe: it waits a moment (so that a caller
// that does not wait for it can be told apart), writes its path to QVDLM_NSSETUP_MARKER and ends.
[[maybe_unused]] const bool kInstaller = [] {
    wchar_t self[MAX_PATH];
    if (GetModuleFileNameW(nullptr, self, MAX_PATH) == 0 || _wcsicmp(self, installerPath().c_str()) != 0)
        return false;
    Sleep(300);
    qvtest::writeFile(qvtest::env(L"QVDLM_NSSETUP_MARKER"), narrow(self));
    ExitProcess(0);
}();

// The double, loaded by the test once the first test (which must see it unloaded) has run.
template <typename Fn>
Fn control(const char* name)
{
    static const HMODULE module = LoadLibraryW(L"QvDownload.dll");
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}
void script(const char* text) { control<void (*)(const char*)>("QvdScript")(text); }
int liveSessions() { return control<int (*)()>("QvdLiveSessions")(); }
std::vector<std::string> journal(const std::string& prefix = "#")
{
    const auto read = control<size_t (*)(char*, size_t)>("QvdJournal");
    std::string text(read(nullptr, 0), '\0');
    read(text.data(), text.size());
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        if (text.compare(at, prefix.size(), prefix) == 0)
            lines.push_back(text.substr(at, end - at));
    return lines;
}
std::string joined(const std::vector<std::string>& lines, size_t from)
{
    std::string all;
    for (size_t i = from; i < lines.size(); ++i)
        all += (i > from ? ", " : "") + lines[i].substr(lines[i].find(' ') + 1);
    return all;
}

std::shared_ptr<DownloadRequest> deliveredRequest(const wchar_t* url)
{
    std::shared_ptr<DownloadRequest> request(QvDLM::createDownloadRequest(), [](DownloadRequest* r) { QvDLM::destroy(r); });
    request->setUrl(url, nullptr, nullptr);
    request->setUseAkamai(true);
    return request;
}

// A download that hands out its request and keeps its status and delivery flag as a job would.
struct Job : ::testing::NiceMock<MockDownload> {
    explicit Job(DownloadRequest& request)
    {
        ON_CALL(*this, getRequest()).WillByDefault(Return(&request));
        ON_CALL(*this, setStatus(_)).WillByDefault([this](unsigned s) { status = s; });
        ON_CALL(*this, setUseAkamai(_, _)).WillByDefault([this, &request](bool use, bool store) { request.setUseAkamai(use), stored |= store; });
    }
    unsigned status = 0xDEAD;
    bool stored = false;
};

TEST(NetSessionModule, IsLoadedOnlyWhileADeliveredDownloadHoldsASession)
{
    ASSERT_EQ(GetModuleHandleW(L"QvDownload.dll"), nullptr);
    auto request = deliveredRequest(L"http://localhost:19301/a.bin?SESSION_ID=s");
    Job job{*request};
    qv::NetSessionDelivery delivery;
    EventRecorder events;
    // Without the module beside the program: plain HTTP (not stored), and the client cannot be started.
    const std::wstring dll = installerPath().substr(0, installerPath().size() - 11) + L"QvDownload.dll";
    ASSERT_TRUE(MoveFileW(dll.c_str(), (dll + L".away").c_str()));
    const std::string plain = narrow(delivery.initUrl(job));
    const bool started = StartAkamai();
    ASSERT_TRUE(MoveFileW((dll + L".away").c_str(), dll.c_str()));
    EXPECT_EQ(plain, "http://localhost:19301/a.bin?SESSION_ID=s");
    EXPECT_TRUE(!started && !request->getUseAkamai() && !job.stored && events.events().empty());
    // Without delivery the module is not loaded and the operations do nothing.
    EXPECT_TRUE(narrow(delivery.initUrl(job)) == plain && delivery.resume() == 0 && delivery.abort(true) == 0);
    delivery.finish(*request, qvdlm::state::Completed);
    EXPECT_EQ(GetModuleHandleW(L"QvDownload.dll"), nullptr);

    request->setUseAkamai(true);
    EXPECT_EQ(narrow(delivery.initUrl(job)), kServe + "http://localhost:19301/a.bin");
    EXPECT_NE(GetModuleHandleW(L"QvDownload.dll"), nullptr);
    delivery.finish(*request, qvdlm::state::Completed);
    EXPECT_EQ(GetModuleHandleW(L"QvDownload.dll"), nullptr);
}

class NetSessionTest : public ::testing::Test {
protected:
    void SetUp() override { script(""); }
    void TearDown() override // every session went back stopped, and no call landed in an unused slot
    {
        delivery.shutdown();
        EXPECT_TRUE(joined(journal(), 0).find("unstopped") == std::string::npos && joined(journal(), 0).find("slot") == std::string::npos);
        EXPECT_EQ(liveSessions(), live);
    }

    std::shared_ptr<DownloadRequest> request = deliveredRequest(L"http://localhost:19301/p/setup.exe?authparam=0a0b&SESSION_ID=x&y=1");
    Job job{*request};
    EventRecorder events;
    qv::NetSessionDelivery delivery;
    const int live = liveSessions();
    const std::string origin = narrow(request->getUrl(false)); // with its token, without the query
};

struct DeliveryRow {
    const char* script;
    bool local;
    unsigned status;
    std::vector<std::string> events; // kind:value or kind:text
    const char* calls = nullptr;     // of the first session after its creation
};

class DeliveryTest : public NetSessionTest, public ::testing::WithParamInterface<DeliveryRow> {};

TEST_P(DeliveryTest, SessionAnswersDecideTheUrlAndTheEvents)
{
    const DeliveryRow& row = GetParam();
    script(row.script);
    EXPECT_EQ(narrow(delivery.initUrl(job)), row.local ? kServe + origin : origin + "&SESSION_ID=x&y=1");
    EXPECT_TRUE(delivery.active() == row.local && request->getUseAkamai() == row.local && !job.stored && job.status == row.status);
    std::vector<std::string> seen;
    for (const auto& e : events.events())
        seen.push_back(std::to_string(e.kind) + ":" + (e.text.empty() ? std::to_string(e.value) : narrow(e.text)));
    EXPECT_EQ(seen, row.events);
    const std::vector<std::string> first = journal("#1 ");
    EXPECT_EQ(first.at(0).rfind("#1 create QVDLM|" + origin + "|SESSION_ID=x&y=1", 0), 0u) << first[0];
    EXPECT_TRUE(!row.calls || joined(first, 1) == row.calls) << joined(first, 1);
    if (std::strncmp(row.script, "stop", 4) != 0)
        return; // the first row's session also takes the download's operations
    delivery.pause();
    EXPECT_TRUE(delivery.resume() == 0 && delivery.resume() == 5 && delivery.abort(true) == 0 && delivery.abort(false) == 1);
    delivery.finish(*request, qvdlm::state::Exiting);
    EXPECT_EQ(joined(journal("#1 "), 4), "pause, resume null, resume null, stop 1, stop 0, pause, stop 0, destroy");
}

const char kOtherError[] = "3:DownloadImp::initUrl: createAkamaiNetSession failed. net session error: 42";
INSTANTIATE_TEST_SUITE_P(Scripts, DeliveryTest, ::testing::Values(
    DeliveryRow{"stop=0,1 resume=0,0,5", true, 0, {}, "getLastError, resume null, getState"}, DeliveryRow{"create=0", false, 0, {}, ""},
    DeliveryRow{"error=7", false, 0, {}, "getLastError, stop 0, destroy"}, DeliveryRow{"resume=-1 error=0,5", true, 0, {"2:1008"}},
    DeliveryRow{"resume=-1 error=0,6", true, 0, {"2:1013"}}, DeliveryRow{"resume=-1 error=0,12", true, 0, {"2:1013"}},
    DeliveryRow{"resume=-1 error=0,13", true, 0, {}}, DeliveryRow{"resume=-1 error=0,42", true, 0, {kOtherError, "6:42"}},
    // Proxy credentials wanted: a new session at once, given up after ten rounds.
    DeliveryRow{"resume=-1 error=0,10 ; resume=0", true, 0x25000009, {"2:1016"}, "getLastError, resume null, getLastError, stop 0, destroy"},
    DeliveryRow{"resume=-1 error=0,10", false, 0x25000009, std::vector<std::string>(10, "2:1016")},
    // A busy session (state 3 twice) is paused until it leaves that state or pause answers all ones.
    DeliveryRow{"state=3,3,3,0", true, 0, {}, "getLastError, resume null, getState, getState, pause, getState, pause, getState"}, DeliveryRow{"state=3,0", true, 0, {}, "getLastError, resume null, getState, getState"},
    DeliveryRow{"state=3 pause=0,-1", true, 0, {}, "getLastError, resume null, getState, getState, pause, getState, pause"}));

TEST_F(NetSessionTest, EveryBlockIsReleasedByItsOriginUrlAlsoAfterAFallback)
{
    auto blocks = deliveredRequest(L"http://localhost:19301/p/pkg_001_003.sfx.exe?authparam=0a0b&SESSION_ID=x&y=1");
    Job blocksJob{*blocks};
    std::vector<std::string> releases;
    for (int32_t block = 0; block < 3; ++block)
        blocks->setBlockId(block), releases.push_back("#1 release " + narrow(blocks->getUrl(false)));
    blocks->setBlockId(1);
    EXPECT_EQ(narrow(delivery.initUrl(blocksJob)), kServe + releases[1].substr(11));
    EXPECT_EQ(journal("#1 create").at(0), "#1 create QVDLM|" + releases[1].substr(11) + "|SESSION_ID=x_001_003&y=1");
    delivery.finish(*blocks, qvdlm::state::Completed);
    EXPECT_TRUE(journal("#1 release") == releases && blocks->getBlockId() == 0);

    script(""), blocks->setBlockId(2), delivery.initUrl(blocksJob);
    qv::NetSessionDelivery::fallBackToHttp(blocksJob);
    EXPECT_TRUE(blocksJob.stored);
    EXPECT_EQ(narrow(blocks->getUrl(true)), releases[2].substr(11) + "&SESSION_ID=x_003_003&y=1");
    delivery.finish(*blocks, qvdlm::state::Aborted);
    EXPECT_TRUE(journal("#1 release") == releases && blocks->getBlockId() == 0);
}

TEST(StartAkamai, SessionsAreMadeKeptAndGivenUp)
{
    const struct {
        const char* script;
        bool started;
        int sessions;
        bool installerRan;
        const char* calls = nullptr;
    } rows[] = {{"", true, 1, false, "create QvDLMgr|(null)|(null), getLastError"}, {"create=0", false, 1, false},
                {"error=4 ; error=4 ; error=0", true, 3, false}, {"error=4", false, 11, false}, {"error=4 install=0 ; error=0", true, 2, false},
                {"error=4 install=1 ; error=0", true, 2, true, "create QvDLMgr|(null)|(null), getLastError, needsInstall, stop 0, "
                 "destroy, create QvDLMgr|(null)|(null), getLastError"}};
    qvtest::ScratchDir scratch{L"start-akamai"};
    SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", (scratch / L"ran").c_str());
    for (const auto& row : rows) {
        script(row.script);
        DeleteFileW((scratch / L"ran").c_str());
        const int live = liveSessions();
        EXPECT_EQ(StartAkamai(), row.started) << row.script;
        EXPECT_EQ(liveSessions(), live + row.started); // a usable session is left alive
        EXPECT_EQ(journal("#" + std::to_string(row.sessions) + " create QvDLMgr|(null)|(null)").size(), 1u);
        EXPECT_TRUE(journal("#" + std::to_string(row.sessions + 1) + " ").empty());
        EXPECT_TRUE(!row.calls || joined(journal(), 0) == row.calls) << joined(journal(), 0);
        std::string ran; // written after a pause: it is there because the call waited
        EXPECT_EQ(qvtest::readFile(scratch / L"ran", ran), row.installerRan);
        EXPECT_TRUE(!row.installerRan || _stricmp(ran.c_str(), narrow(installerPath()).c_str()) == 0) << ran;
    }
    SetEnvironmentVariableW(L"QVDLM_NSSETUP_MARKER", nullptr);
}

// Whole downloads through the manager and the real stages: served locally, then with the endpoint
// answering 404, falling back to plain HTTP.
TEST(NetSessionDownload, IsServedLocallyOrFallsBackToPlainHttp)
{
    qvtest::ScratchDir scratch{L"netsession-download"};
    const std::wstring endpoint = qvtest::wwwDir().substr(0, qvtest::wwwDir().size() - 4) + L"\\netsession-endpoint";
    const std::string content = qvtest::patternBytes(5 * 1048576 + 17, 91);
    const std::string origin = narrow(qvtest::nginxUrl(L"netsession-e2e.bin"));
    ASSERT_TRUE(qvtest::writeFile(qvtest::wwwDir() + L"\\netsession-e2e.bin", content));
    EventRecorder events;
    for (const bool served : {true, false}) {
        script("");
        std::string log, before, got;
        qvtest::readFile(endpoint + L"\\access.log", before);
        ASSERT_TRUE(served ? qvtest::writeFile(endpoint + L"\\www\\api", content) : DeleteFileW((endpoint + L"\\www\\api").c_str()) != 0);
        const std::wstring dest = scratch / (served ? L"served" : L"fallback");
        DownloadRequestLog::getInstance()->open((dest + L".info").c_str());
        DownloadMgr* manager = QvDLM::createDownloadMgr();
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(qvtest::widen(origin).c_str(), nullptr, nullptr), r->setDestDir(dest.c_str()), r->setUseAkamai(true);
        r->setRetryCount(0); // no retries on the local interface: the first failed read falls back
        Download* d = manager->addDownload(r);
        ASSERT_TRUE(d && manager->startDownload(d));
        for (int i = 0; i < 1200 && (d->getState() != qvdlm::state::Completed || manager->anyRunning()); ++i)
            Sleep(50);
        EXPECT_EQ(d->getState(), qvdlm::state::Completed) << std::hex << d->getStatus();
        EXPECT_TRUE(qvtest::readFile(dest + L"\\netsession-e2e.bin", got) && got == content) << got.size();
        qvtest::readFile(endpoint + L"\\access.log", log);
        EXPECT_NE(log.find("\"GET /api?function=serveFile&cid=0&url=" + origin + " HTTP/1.1\" " + (served ? "206" : "404"),
                           before.size()), std::string::npos) << log.substr(before.size());
        EXPECT_EQ(journal("#1 create"), std::vector<std::string>{"#1 create QVDLM|" + origin + "|(null)"});
        EXPECT_TRUE(d->getRequest()->getUseAkamai() == served && events.has(d, qvdlm::event::StatusMessage, 1021) == !served &&
                    events.hasText(L"readerStreamThread fallbacks to http download instead of akamai") == !served);
        QvDLM::destroy(manager);
        // A completed one-file package is released with null; a replaced session releases nothing.
        const std::vector<std::string> calls = journal("#1 ");
        EXPECT_EQ(joined(calls, calls.size() - (served ? 3 : 1)), served ? "release (null), stop 0, destroy" : "destroy");
        EXPECT_TRUE(served || journal("#1 release").empty());
    }
}

// The digest (empty on failure) and the expiry of one token.
std::pair<std::string, int64_t> token(const char* url, uint64_t start, uint64_t life, const char* key, const char* extra,
                                      int expectedRc = 0)
{
    int64_t expiry = 0;
    char* token = nullptr;
    EXPECT_EQ(urlauth_gen_token(url, start, life, key, extra, &expiry, &token), expectedRc) << (url ? url : "(null)");
    std::pair<std::string, int64_t> result{token ? token : "", expiry};
    std::free(token);
    return result;
}

TEST(UrlToken, AgreesWithAnIndependentDigestOnFreshRandomCases)
{
    const unsigned seed = GetTickCount() ^ GetCurrentProcessId(); // every run checks new cases
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto text = [&rng](size_t least, size_t most) {
        std::string s(std::uniform_int_distribution<size_t>(least, most)(rng), ' ');
        for (char& c : s)
            c = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/_-.?&=%"[rng() % 70];
        return s;
    };
    for (int i = 0; i < 200; ++i) {
        const std::string url = "/" + text(1, 300), key = text(1, 64), extra = i % 3 ? text(0, 40) : "";
        const uint64_t start = 1 + rng() % 4000000000u, life = i % 2 ? 2592000u : rng();
        const auto [digest, expiry] = token(url.c_str(), start, life, key.c_str(), i % 3 ? extra.c_str() : nullptr);
        EXPECT_EQ(expiry, static_cast<int64_t>(start + life));
        ASSERT_EQ(digest, qvtest::urlTokenDigest(static_cast<uint32_t>(start + life), url, extra, key)) << url;
    }
}

TEST(UrlToken, EdgesCallerBuffersAndTokenedUrls)
{
    EXPECT_EQ(token("/x", 1700000000, 60, "k", "").first, qvtest::urlTokenDigest(1700000060, "/x", "", "k"));
    EXPECT_EQ(token("/big", 0x100000000ull - 30, 60, "k", nullptr).first, qvtest::urlTokenDigest(30, "/big", "", "k"));
    for (const auto& [url, key, rc] : {std::tuple<const char*, const char*, int>{nullptr, nullptr, -1}, {"", nullptr, -2}, {"/u", nullptr, -3}, {"/u", "", -4}})
        EXPECT_EQ(token(url, 1, 1, key, nullptr, rc).first, ""); // checked in this order
    const int64_t now = static_cast<int64_t>(time(nullptr));
    const int64_t expiry = token("/p/pkg.tar.lzma2", 0, 2592000, "secret", nullptr).second; // start 0 is now
    EXPECT_TRUE(expiry >= now + 2592000 && expiry <= now + 2592001) << expiry - now;
    char* digest = nullptr; // no expiry cell
    ASSERT_EQ(urlauth_gen_token("/u", 100, 1, "k", nullptr, nullptr, &digest), 0);
    EXPECT_EQ(std::string(digest), qvtest::urlTokenDigest(101, "/u", "", "k"));
    std::free(digest);
    EXPECT_STREQ(url_auth_version, "1.1.3");
    // A non-null *tokenOut makes the URL's own memory receive the digest, cut to the URL's length.
    char url[48] = "/a/url/long/enough/to/hold/a/whole/digest/text", shortUrl[16] = "/short", dummy = 0;
    const std::string expected = qvtest::urlTokenDigest(1001, url, "", "k");
    std::memset(shortUrl + 7, 0x5A, sizeof shortUrl - 7);
    for (char* buffer : {url, shortUrl}) {
        char* out = &dummy;
        ASSERT_EQ(urlauth_gen_token(buffer, 1000, 1, "k", nullptr, nullptr, &out), 0);
        EXPECT_EQ(out, buffer);
    }
    EXPECT_EQ(std::string(url), expected);
    EXPECT_EQ(std::string(shortUrl), qvtest::urlTokenDigest(1001, "/short", "", "k").substr(0, 6));
    EXPECT_EQ(std::string(shortUrl + 7, 9), std::string(9, 0x5A));
    // A non-null *urlOut makes the expiry cell receive the URL, cut to the cell.
    int64_t cell[2] = {0, 0x6767676767676767}; // the expiry and a guard behind it
    ASSERT_EQ(urlauth_gen_URL("/u", 1000, 1, "k", nullptr, nullptr, cell, &(digest = &dummy)), 0);
    EXPECT_TRUE(digest == reinterpret_cast<char*>(cell) && std::string(digest) == "/u?1001" && cell[1] == 0x6767676767676767);
    const struct {
        const char *url, *key, *extra, *param;
        int rc;
        const char* tail; // separator and expiry between the URL and the digest
    } rows[] = {{"http://h/p/f.bin", "key", nullptr, nullptr, 0, "?1024_"}, {"http://h/p?a=1", "key", "x", "myparam", 0, "&1024_"},
                {"/u", "k", nullptr, "abcde", 0, "?1024_"}, {"/u", "k", nullptr, "abcdefghijkl", 0, "?1024_"},
                {"/u", "k", nullptr, "abcd", -101, ""}, {"/u", "k", nullptr, "abcdefghijklm", -101, ""}, {"/u", "", nullptr, "ab", -4, ""}};
    for (const auto& row : rows) {
        char* out = nullptr;
        EXPECT_EQ(urlauth_gen_URL(row.url, 1000, 24, row.key, row.extra, row.param, cell, &out), row.rc) << row.param;
        EXPECT_EQ(out ? std::string(out) : "",
                  row.rc ? "" : row.url + (row.tail + qvtest::urlTokenDigest(1024, row.url, row.extra ? row.extra : "", row.key)));
        std::free(out);
    }
}

TEST(UrlValidation, TrustedHostsCodesSizesAndMessages)
{
    const std::pair<const wchar_t*, bool> hosts[] = {
        {L"https://www.quorvel.com/pkg/a.tar.lzma2", true}, {L"http://quorvel.com/", true}, {L"http://downloads.quorvel.com:8080/a", true},
        {L"HTTPS://WWW.QUORVEL.COM/PKG/A.SFX.EXE", true}, {L"HTTP://LocalHost:80/x", true}, {L"http://localhost/a.bin", true},
        {L"https://www.quorvel.com", false}, {L"http://localhost:8080", false}, {L"https://www.quorvel.com?x=/y", false}, // no "/"
        {L"http://127.0.0.1:18800/a.bin", false}, {L"http://example.org/quorvel.com/a", false}, {L"http://example.org/?h=localhost/", false},
        {L"http://example.org:80/localhost:1/", false}, {L"http://evilquorvel.com/a", true}, // no label boundary
        {L"http://quorvel.com:@evil.example/a", true}, {L"http://user:localhost:x@evil.example/a", true}, {L"http://quorvel.co/a", false},
        {L"http://quorvel.com.evil.example/a", false}, {L"www.quorvel.com/a", true}, {L"localhost/a", false}, // from the third character
        {L"//localhost/a", true}, {L"ftp://www.quorvel.com/a", true}, {L"://localhost/a", true}, {L"ab", false}};
    for (const auto& [url, trusted] : hosts)
        EXPECT_EQ(validateUrlDomain(url), trusted) << qvtest::narrow(url);
    EXPECT_THROW(validateUrlDomain(L"a"), std::out_of_range);
    EXPECT_THROW(validateUrlDomain(nullptr), std::out_of_range);
    const std::wstring direct = L"http://127.0.0.1:" + std::to_wstring(qvtest::port(qvtest::kNginxPortOffset)) + L"/";
    const std::wstring closed = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/a.bin";
    const struct {
        std::wstring url;
        unsigned long code, otherCode; // Windows and Wine differ on a refused connection
        int64_t size; // -7: never recorded
        std::wstring message; // "{url}" stands for the URL; a final '*' for any rest; empty: none
    } rows[] = {
        {qvtest::nginxUrl(L"hello.txt"), 0, 0, 13, L"validateUrl: Content length is 13\t{url} "},
        {qvtest::nginxUrl(L"pattern-2-4198403.bin"), 0, 0, 4198403, L"validateUrl: Content length is 4198403\t{url} "},
        {qvtest::nginxUrl(L"empty.bin"), 2, 2, 0, L"validateUrl: Content length is 0\t{url} "},
        {qvtest::faultUrl(L"status/403"), 4, 4, 0, L"validateUrl: HTTP status: 403\t{url} "},
        {qvtest::faultUrl(L"status/500"), 2, 2, 0, L"validateUrl: HTTP status: 500\t{url} "},
        {qvtest::nginxUrl(L"missing.bin"), 2, 2, 0, L"validateUrl: HTTP status: 404\t{url} "},
        {qvtest::faultUrl(L"close"), 2, 2, 0, L"validateUrl: HTTP status: 0\t{url} "},
        {qvtest::faultUrl(L"status/407"), 20, 20, 0, L""},
        {qvtest::nginxUrl(std::wstring(3000, L'p')), 2, 2, 0, L"validateUrl: HttpOpenRequest(HAED) failed\t{url} "},
        {closed, 19, 17, 0, L"validateUrl: HTTP stream not connected. URL: {url}. status: *"},
        {direct + L"hello.txt", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"https://www.quorvel.com", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"a", 2, 2, -7, L"validateUrl: validateUrlDomain failed for URL: {url}"},
        {L"http://example.org/" + std::wstring(5000, L'x'), 2, 2, -7, // cut at 1023 characters
         L"validateUrl: validateUrlDomain failed for URL: http://example.org/" + std::wstring(957, L'x')}};
    for (const auto& row : rows) {
        FakeRequest request(row.url);
        request.setContentLength(-7);
        EventRecorder events;
        const unsigned long code = validateUrl(&request);
        EXPECT_TRUE(code == row.code || code == row.otherCode) << code << " " << qvtest::narrow(row.url.substr(0, 80));
        EXPECT_EQ(request.getContentLength(), row.size);
        const auto seen = events.events();
        ASSERT_EQ(seen.size(), row.message.empty() ? 0u : 1u);
        if (row.message.empty())
            continue;
        std::wstring expected = row.message;
        if (const size_t at = expected.find(L"{url}"); at != std::wstring::npos)
            expected.replace(at, 5, row.url);
        EXPECT_EQ(seen[0].source, nullptr);
        EXPECT_EQ(expected.back() == L'*' ? seen[0].text.substr(0, expected.size() - 1) + L"*" : seen[0].text, expected);
    }
    FakeRequest noUrl;
    EXPECT_TRUE(validateUrl(&noUrl) == 2 && validateUrl(nullptr) == 2);
}

} // namespace
