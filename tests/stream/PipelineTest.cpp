// The HTTP source against nginx and the fault server, and the three stage threads with the real stages:
// plain files, blocks, packages, broken transfers, the retry cycle, stops and failures.
#include <gtest/gtest.h>

#include <windows.h>
#include <wininet.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>

#include "QvDLMCodes.h"
#include "TarTestSupport.h"
#include "stream/GenericFileStreamWriterImp.h"
#include "stream/HTTPStreamImp.h"
#include "stream/LZMA2StreamWriterImp.h"
#include "stream/StreamThreads.h"
#include "stream/TARStreamWriterImp.h"
#include "stream/TargetImp.h"
#include "support/EventRecorder.h"
#include "support/FakeRequest.h"
#include "support/TestServers.h"

namespace msg = qvdlm::msg;
namespace event = qvdlm::event;
namespace state = qvdlm::state;
using namespace tartest;
using qvtest::kPattern1Size;
using qvtest::kPattern3Size;

namespace {

// The pipeline's one test double: a job whose state the test sets and that records what the stage threads
// tell it (read after they ended), around real stages; retry waits are counted instead of slept.
struct FakeJob final : PipelineJob {
    explicit FakeJob(FakeRequest& request) : request_(request) {}
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> state{qvdlm::state::Play}, gate{1}, controlThread{0};
    std::atomic<int64_t> bytes{0}, total{0};
    std::atomic<int> fallbacks{0}, pauses{0};
    std::wstring failRestoreOf;           // the stage whose restore fails
    Stream* sink = nullptr;               // the job's current sink after a block change
    std::deque<uint32_t> validationCodes; // answered in turn; 0 once empty
    std::vector<int64_t> blockLengths;    // the request's length once a block is validated
    struct Checkpoint { std::wstring stage; uint32_t sequence; bool fromReader, fromWriter; };
    std::vector<Checkpoint> checkpoints;
    std::vector<uint32_t> statuses;
    std::vector<std::wstring> restored;

    bool stopRequested() override { return stop; }
    uint32_t status() override { return state; }
    void setJobStatus(uint32_t code) override { remember(statuses, code); }
    DownloadRequest* request() override { return &request_; }
    Download* download() override { return nullptr; }
    void checkpoint(const wchar_t* stage, uint32_t n, Stream*, bool r, bool w) override { remember(checkpoints, Checkpoint{stage, n, r, w}); }
    bool restoreStage(const wchar_t* stage, Stream*) override { return remember(restored, stage), failRestoreOf != stage; }
    void addBytes(int64_t n) override { bytes += n; }
    uint32_t controlThreadId() override { return controlThread; }
    uint32_t startGate() override { return gate; }
    Stream* currentSource() override { return nullptr; }
    Stream* currentSink() override { return sink; }
    void setBlockDownloadedSize(uint64_t size) override { request_.setBlockDownloadedSize(size); }
    void addTotalDownloadedSize(int64_t delta) override { total += delta; }
    uint32_t validateUrl() override // only the source thread validates
    {
        request_.setContentLength(blockLengths.at(static_cast<size_t>(request_.getBlockId())));
        const uint32_t code = validationCodes.empty() ? 0 : validationCodes.front();
        return validationCodes.empty() ? 0 : (validationCodes.pop_front(), code);
    }
    bool acceptValidation(uint32_t result) override { return result != qvdlm::validation::ProxyAuthRequired; }
    const wchar_t* sourceUrl() override { return request_.getUrl(false); }
    bool takeInterruption() override { return false; }
    void fallBackToHttp() override { ++fallbacks, request_.setUseAkamai(false); }
    template <typename T, typename V>
    void remember(std::vector<T>& list, V value) { std::lock_guard<std::mutex> hold(mutex_); list.push_back(value); }
    FakeRequest& request_;
    std::mutex mutex_;
};

struct CountingServices final : ReaderServices {
    std::atomic<int> sleeps{0}, reconnects{0};
    std::vector<uint32_t> timeouts;
    std::vector<int64_t> createdPositions;

    StreamReader* createSource(const wchar_t* url, uint32_t start, int64_t at) override { return createdPositions.push_back(at), real().createSource(url, start, at); }
    bool reconnect(Stream* source) override { return ++reconnects, real().reconnect(source); }
    void setTimeouts(Stream* source, uint32_t ms) override { timeouts.push_back(ms), real().setTimeouts(source, ms); }
    int64_t position(Stream* source) override { return real().position(source); }
    uint32_t dataStart(Stream* source) override { return real().dataStart(source); }
    void sleep(uint32_t) override { ++sleeps; }
    static ReaderServices& real() { return httpReaderServices(); }
};

constexpr uint32_t kTimedOut = 0xFFFFFFFF;

// Runs a body on its own thread; joins within a bound.
struct StageThread {
    explicit StageThread(std::function<uint32_t()> f) : body(std::move(f)), handle(CreateThread(nullptr, 0, entry, this, 0, &id)) {}
    StageThread(const StageThread&) = delete;
    std::function<uint32_t()> body;
    DWORD id = 0;
    HANDLE handle;
    static DWORD WINAPI entry(void* self) { return static_cast<StageThread*>(self)->body(); }
    ~StageThread() { join() == kTimedOut && (ADD_FAILURE() << "thread did not end", post(qvdlm::command::StopKeep)) && WaitForSingleObject(handle, 5000), CloseHandle(handle); }
    uint32_t join(DWORD ms = 60000) { DWORD c = kTimedOut; return WaitForSingleObject(handle, ms) || !GetExitCodeThread(handle, &c) ? kTimedOut : c; }
    bool post(UINT message) // fails until the thread made its queue
    {
        for (int i = 0; i < 2000; ++i, Sleep(1)) if (PostThreadMessageW(id, message, 0, 0)) return true;
        return false;
    }
};

// Source -> file sink, or source -> LZMA2 -> tar sink for a package, around a fake job, linked as the job
// links them. Names of files in www stand for their nginx URLs.
struct Pipeline {
    FakeRequest request;
    FakeJob job{request};
    CountingServices services;
    EventRecorder events;
    qvtest::ScratchDir dir{L"pipeline"};
    std::vector<std::unique_ptr<TargetImp>> targets;
    std::unique_ptr<LinkRecorder> links;

    explicit Pipeline(std::vector<std::wstring> urls, bool open = true)
    {
        for (auto& u : urls) {
            job.blockLengths.push_back(static_cast<int64_t>(contents(qvtest::wwwDir() + L"\\" + u.substr(u.rfind(L'/') + 1)).size()));
            u = u.find(L"://") == std::wstring::npos ? qvtest::nginxUrl(u) : u;
        }
        request.setBlocks(urls), request.setContentLength(job.blockLengths.at(0));
        add(new HTTPStreamImp(request.getUrl(false), 0, 0), L"Http");
        if (request.isLzma2Package() || request.isSfxPackage()) {
            add(new LZMA2StreamWriterImp, L"Lzma");
            add(new TARStreamWriterImp(dir.path().c_str()), L"xTar");
            links = std::make_unique<LinkRecorder>(); // after the sink chose its link operation
        } else {
            add(new GenericFileStreamWriterImp((dir / L"out.bin").c_str()), L"File");
        }
        if (open) // as the job does before the threads start; a failure is left to the retry cycle
            static_cast<HTTPStreamImp*>(targets[0]->streamData()->stage)->reconnect();
    }
    void add(Stream* stage, const wchar_t* name)
    {
        targets.push_back(std::make_unique<TargetImp>(&job, targets.empty() ? nullptr : targets.back().get()));
        auto* writer = dynamic_cast<StreamWriter*>(stage);
        LinkSpec spec{writer && writer->readerSide() ? 2u : 1u, {kLinkBufferSize, kLinkBufferSize}, {}, -1};
        wcsncpy_s(spec.stageName, kStageNameLength, name, _TRUNCATE);
        EXPECT_TRUE(targets.back()->configure(stage, &spec) && targets.back()->createBuffers());
    }
    // Exit codes, source first; the test thread stands in for the control thread. release: close the stages.
    std::vector<uint32_t> run(bool release = true)
    {
        MSG m;
        PeekMessageW(&m, nullptr, 0, 0, PM_NOREMOVE);
        job.controlThread = GetCurrentThreadId();
        std::vector<std::unique_ptr<StageThread>> threads;
        for (size_t i = 0; i < targets.size(); ++i)
            threads.push_back(std::make_unique<StageThread>([this, i] {
                Target* t = targets[i].get();
                return i == 0 ? runReaderStream(t, services) : i + 1 < targets.size() ? readerWriterStreamThread(t) : writerStreamThread(t);
            }));
        std::vector<uint32_t> codes;
        for (auto& t : threads) {
            while (MsgWaitForMultipleObjects(1, &t->handle, FALSE, 60000, QS_POSTMESSAGE) == WAIT_OBJECT_0 + 1)
                while (PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE))
                    if (m.message == qvdlm::command::Pause && ++job.pauses)
                        job.state = qvdlm::state::Paused;
            codes.push_back(t->join(0));
        }
        threads.clear();
        return release ? targets.clear() : void(), codes;
    }
    void abortOnError() // as the manager does
    {
        events.onEvent = [this](const EventRecorder::Entry& e) { if (e.kind == qvdlm::event::Error) job.state = qvdlm::state::Aborting, job.stop = true; };
    }
    std::string file() { return contents(dir / L"out.bin"); }
    int count(uint32_t kind, uint32_t value) { return events.count(nullptr, kind, value); }
};

constexpr uint32_t kAny = 1; // any failure
const std::wstring kClosedUrl = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/x.bin";

std::wstring key() { return L"&times=1&key=" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64()); }
std::wstring pattern(size_t size, uint32_t seed, const std::wstring& faults = {}) // from nginx, or the fault server
{
    const std::wstring name = qvtest::patternFileName(size, seed);
    return faults.empty() ? qvtest::nginxUrl(name) : qvtest::faultUrl(L"file/" + name + L"?" + faults);
}

// Reads until the end of the body or a failure, as the source thread does; the failure or 0.
uint32_t readAll(HTTPStreamImp& stream, std::string& data)
{
    std::vector<uint8_t> buffer(4096);
    for (uint32_t i = 0, n = 1; i < 100000; ++i, data.append(reinterpret_cast<const char*>(buffer.data()), n))
        if ((n = stream.readBytes(buffer.data(), 4096)) == 0 || n == UINT32_MAX)
            return n == 0 ? 0 : stream.lastStatus();
    return ADD_FAILURE() << "body never ended", 0;
}

} // namespace

TEST(HttpSource, AnswersOfRealServers)
{
    const std::string pattern1 = qvtest::patternBytes(kPattern1Size, 1);
    const std::string builtIn = qvtest::patternBytes(kPattern3Size, 3).substr(0, qvtest::kFaultCut);
    const struct {
        std::wstring url;
        int64_t position;
        uint32_t timeouts, statusCode, failure; // statusCode 0: the request may fail
        std::string data;                       // what is read; from /echo, lines it holds
    } rows[] = {{pattern(kPattern1Size, 1), 0, 0, 206, 0, pattern1},
                {pattern(kPattern1Size, 1), 1000, 0, 206, 0, pattern1.substr(1000)},
                {L"localhost:" + std::to_wstring(qvtest::port(0)) + L"/hello.txt", 0, 0, 206, 0, "hello, world\n"},
                {qvtest::faultUrl(L"echo"), 1000, 0, 206, 0, "Range: bytes=1000-\r\n|User-Agent: WinINet/1.0\r\n|Referer: "},
                {qvtest::nginxUrl(L"no-such-file.bin"), 0, 0, 404, qvdlm::HttpErrorBase + 404, ""},
                {qvtest::faultUrl(L"status/200"), 5, 0, 200, qvdlm::HttpErrorBase + 200, ""}, // not the range asked for
                {qvtest::faultUrl(L"empty"), 0, 0, 200, 0, ""},
                {qvtest::faultUrl(L"fin"), 0, 0, 200, ERROR_INTERNET_CONNECTION_ABORTED, builtIn}, // not an end
                {qvtest::faultUrl(L"rst"), 0, 0, 0, kAny, builtIn}, {qvtest::faultUrl(L"stall/6000"), 0, 2000, 200, kAny, builtIn},
                {qvtest::faultUrl(L"stall-head/6000"), 0, 2000, 0, kAny, ""}, {qvtest::faultUrl(L"close"), 0, 0, 0, kAny, ""},
                {kClosedUrl, 0, 0, 0, kAny, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.url) + " from " + std::to_string(row.position));
        HTTPStreamImp stream(row.url.c_str(), 0, row.position);
        if (row.timeouts)
            stream.setTimeouts(row.timeouts);
        std::string data;
        const uint32_t failure = stream.reconnect() ? readAll(stream, data) : kAny;
        EXPECT_TRUE(row.statusCode == 0 || row.statusCode == stream.statusCode()) << stream.statusCode();
        EXPECT_EQ(row.failure, failure != 0 && row.failure == kAny ? kAny : failure);
        std::stringstream lines(row.data);
        for (std::string line; row.url.find(L"/echo") != std::wstring::npos && std::getline(lines, line, '|');)
            EXPECT_NE(std::string::npos, data.find(line)) << data;
        EXPECT_TRUE(row.url.find(L"/echo") != std::wstring::npos ||
                    (data == row.data.substr(0, data.size()) && (row.failure == kAny || data.size() == row.data.size())));
    }
    // What the source tells of the answer: nginx's headers, whole or with their size when the buffer is short.
    HTTPStreamImp stream(qvtest::nginxUrl(L"hello.txt").c_str(), 0, 0);
    ASSERT_TRUE(stream.reconnect());
    EXPECT_STREQ(L"text/plain", stream.contentType());
    EXPECT_STREQ(L"HTTP/1.1", stream.httpVersion());
    wchar_t headers[2048] = {};
    uint32_t length = 4;
    EXPECT_EQ(UINT32_MAX, stream.rawHeaders(headers, &length));
    EXPECT_GT(length, 4u);
    EXPECT_EQ(length, stream.rawHeaders(headers, &length));
    EXPECT_NE(nullptr, std::wcsstr(headers, L"Content-Range: bytes 0-12/13"));
}

TEST(Pipeline, PlainBlocksArriveWholeEachInTheJobsCurrentSinkAndBothEndsCheckpointEverySlot)
{
    Pipeline p({pattern(qvtest::kPattern2Size, 2), pattern(kPattern3Size, 3)});
    auto second = std::make_unique<GenericFileStreamWriterImp>((p.dir / L"second.bin").c_str());
    p.job.sink = second.get();
    p.request.setCheckpointId(7); // restored from checkpoint 7: numbering goes on from there
    EXPECT_EQ(std::vector<uint32_t>({0, 0}), p.run());
    second.reset();
    EXPECT_TRUE(p.file() == qvtest::patternBytes(qvtest::kPattern2Size, 2) && contents(p.dir / L"second.bin") == qvtest::patternBytes(kPattern3Size, 3));
    EXPECT_TRUE(p.job.bytes == p.job.total && p.job.total == static_cast<int64_t>(qvtest::kPattern2Size + kPattern3Size));
    EXPECT_EQ(std::vector<int64_t>({0}), p.services.createdPositions);
    std::sort(p.job.restored.begin(), p.job.restored.end());
    EXPECT_EQ(std::vector<std::wstring>({L"File", L"Http"}), p.job.restored);
    std::vector<uint32_t> source, sink;
    for (const auto& c : p.job.checkpoints) {
        EXPECT_TRUE(c.stage == L"Http" ? c.fromReader && !c.fromWriter : c.stage == L"File" && !c.fromReader && c.fromWriter);
        (c.stage == L"Http" ? source : sink).push_back(c.sequence);
    }
    for (size_t i = 0; i < source.size(); ++i)
        EXPECT_EQ(8 + i, source[i]);
    ASSERT_GE(source.size(), 2u);
    source.pop_back(); // the sink sees the slot that ends the last block and ends instead
    EXPECT_EQ(source, sink);
    for (uint32_t m : {msg::DownloadStarted, msg::UnpackageStarted, msg::DownloadCompleted, msg::UnpackageCompleted})
        EXPECT_EQ(1, p.count(event::Information, m)) << m;

    Pipeline refused({pattern(kPattern1Size, 1), pattern(kPattern3Size, 3)});
    refused.job.validationCodes = {qvdlm::validation::ProxyAuthRequired};
    EXPECT_EQ(qvdlm::status::ProxyAuthRequired, refused.run()[0]);
    EXPECT_TRUE(refused.services.createdPositions.empty());
}

TEST(Pipeline, PackagesExtractAsGnuTarDoesOrFailCleanly)
{
    constexpr uint32_t kIgnored = ~0u;
    const struct {
        std::vector<std::wstring> blocks;
        uint32_t middle, sink, error; // exit codes and the error message, 0 for none
        std::string tree;             // what GNU tar made of the archive (tar-archives/<tree>-tree)
    } rows[] = {{{L"pipeline-gnu.tar.lzma2"}, 0, 0, 0, "gnu"},
                {{L"pipeline-gnu_001_002.tar.lzma2", L"pipeline-gnu_002_002.tar.lzma2"}, 0, 0, 0, "gnu"},
                {{L"pipeline-gnu.sfx.exe"}, 0, 0, 0, "gnu"}, // stub and header before the package
                {{L"pipeline-cut.tar.lzma2"}, SZ_ERROR_INPUT_EOF, kIgnored, msg::DecompressFailed, ""},
                {{L"pipeline-badprop.tar.lzma2"}, SZ_ERROR_UNSUPPORTED, kIgnored, msg::DecompressFailed, ""},
                {{L"pipeline-cuttar.tar.lzma2"}, 0, qvdlm::tarerror::Truncated, msg::UnpackageFailed, ""},
                {{L"pipeline-hostile.tar.lzma2"}, kIgnored, qvdlm::tarerror::FileOpen, msg::UnpackageFailed, ""},
                // Other writers and formats: names of 100, 101, 255 and 1000 bytes, a hard link to the longest, a
                // file with holes, a time with a fraction of a second.
                {{L"pipeline-x-gnu.tar.lzma2"}, 0, 0, 0, "x-gnu"}, {{L"pipeline-x-gnu-sparse.tar.lzma2"}, 0, 0, 0, "x-gnu-sparse"},
                {{L"pipeline-x-posix.tar.lzma2"}, 0, 0, 0, "x-posix"}, {{L"pipeline-x-posix-sparse.tar.lzma2"}, 0, 0, 0, "x-posix-sparse"},
                {{L"pipeline-x-sparse00.tar.lzma2"}, 0, 0, 0, "x-sparse00"}, {{L"pipeline-x-sparse01.tar.lzma2"}, 0, 0, 0, "x-sparse01"},
                {{L"pipeline-x-bsdtar.tar.lzma2"}, 0, 0, 0, "x-bsdtar"}, {{L"pipeline-x-python-pax.tar.lzma2"}, 0, 0, 0, "x-python-pax"},
                {{L"pipeline-x-python-gnu.tar.lzma2"}, 0, 0, 0, "x-python-gnu"},
                {{L"pipeline-x-huge-cut.tar.lzma2"}, 0, qvdlm::tarerror::Truncated, msg::UnpackageFailed, ""}, // 9 GiB by its pax size
                {{L"pipeline-x-empty.tar.lzma2"}, 0, qvdlm::tarerror::BadHeader, msg::UnpackageFailed, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(qvtest::narrow(row.blocks[0]));
        Pipeline p(row.blocks);
        p.abortOnError();
        const auto codes = p.run(false);
        EXPECT_TRUE((codes[0] == 0 || (row.error && codes[0] == state::Aborting)) && codes[1] != kTimedOut &&
                    (row.middle == kIgnored || row.middle == codes[1]) && (row.sink == kIgnored || row.sink == codes[2]))
            << codes[0] << " " << codes[1] << " " << std::hex << codes[2];
        EXPECT_EQ(row.error ? 1 : 0, p.count(event::Error, row.error));
        EXPECT_EQ(row.error ? 0 : 1, p.count(event::Information, msg::UnpackageCompleted));
        EXPECT_EQ(row.error == msg::DecompressFailed, p.job.statuses == std::vector<uint32_t>({qvdlm::status::GeneralError}));
        const auto calls = p.links->calls();
        p.targets.clear(); // closes the sink's file
        if (!row.error)
            expectTree(p.dir.path(), row.tree, &calls);
        EXPECT_FALSE(qvtest::fileExists(p.dir / L"..\\evil.txt"));
    }
}

TEST(Pipeline, BrokenTransfersAreResumedAtTheirPosition)
{
    for (const std::wstring fault : {L"fin=300000", L"rst=300000", L"stall=15000&at=300000"}) {
        SCOPED_TRACE(qvtest::narrow(fault));
        Pipeline p({pattern(kPattern1Size, 1, fault + key())});
        EXPECT_EQ(std::vector<uint32_t>({0, 0}), p.run());
        EXPECT_TRUE(p.file() == qvtest::patternBytes(kPattern1Size, 1));
        EXPECT_GE(p.count(event::StatusMessage, msg::NetworkConnected), 1);
        EXPECT_EQ(0, p.services.sleeps.load()) << "a running job reconnects at once";
    }
}

TEST(Pipeline, RetryCycleWaitsLongerEachTimeThenPausesTheJob)
{
    Pipeline p({kClosedUrl}, false);
    p.job.state = state::Init; // not running: the waits apply
    p.request.setAuxRetryCount(0);
    p.abortOnError();
    const auto codes = p.run();
    EXPECT_TRUE(codes[0] == state::Aborting && codes[1] != kTimedOut);
    EXPECT_EQ(1, p.job.pauses.load());
    // Six attempts (the limit of 5 and one more) after waits of 0, 10, 30, 70, 150 seconds.
    EXPECT_EQ(std::vector<uint32_t>({10000, 10000, 30000, 60000, 60000, 60000}), p.services.timeouts);
    EXPECT_EQ(310, p.services.sleeps.load());
    EXPECT_TRUE(p.count(event::StatusMessage, msg::NetworkConnecting) == 6 && p.count(event::StatusMessage, msg::NetworkError) == 6);
    EXPECT_EQ(1, p.count(event::Error, msg::NetworkError));
    EXPECT_TRUE(p.events.hasText(L"readerStreamThread connection restore failed: 5"));
    EXPECT_TRUE(p.file().empty());
}

TEST(Pipeline, MockFailureNeverLeavesTheCycleThroughSuccessAndFallsBackToHttp)
{
    struct Unset { ~Unset() { SetEnvironmentVariableW(L"DLM_MOCK_FAILURE", nullptr); } } unset;
    SetEnvironmentVariableW(L"DLM_MOCK_FAILURE", L"tRuE");
    Pipeline p({pattern(kPattern3Size, 3, L"fin=20000")});
    p.job.state = state::Init;
    p.request.setRetryCount(2), p.request.setFallbackRetryCount(1), p.request.setAuxRetryCount(0), p.request.setUseAkamai(true);
    p.abortOnError();
    EXPECT_EQ(state::Aborting, p.run()[0]);
    // Every reconnect succeeded, yet the read was never repeated.
    EXPECT_TRUE(p.services.reconnects == 4 && p.count(event::StatusMessage, msg::NetworkConnected) == 4);
    EXPECT_TRUE(p.events.hasText(L"readerStreamThread retry succeeded: 1") && p.events.hasText(L"retry succeeded: 3"));
    EXPECT_EQ(1, p.job.pauses.load());
    // The fallback replaced the source, resuming at the old one's position.
    EXPECT_TRUE(p.job.fallbacks == 1 && p.count(event::StatusMessage, msg::AkamaiFallback) == 1);
    EXPECT_EQ(std::vector<int64_t>({20000}), p.services.createdPositions);
    EXPECT_TRUE(p.events.hasText(L"readerStreamThread connection restore failed: 3"));
    const std::string written = p.file();
    EXPECT_TRUE(written.size() <= 20000 && written == qvtest::patternBytes(20000, 3).substr(0, written.size()));
}

TEST(Pipeline, StagesThatCannotStartOrAreStoppedReleaseTheirNeighbours)
{
    const std::wstring names[] = {L"Http", L"Lzma", L"xTar"};
    for (const std::wstring failing : {L"gate", L"Http", L"Lzma", L"xTar"}) { // a consumer failing first once hung
        SCOPED_TRACE(qvtest::narrow(failing));
        Pipeline p({L"pipeline-gnu.tar.lzma2"});
        p.request.setCheckpointId(2);
        p.job.gate = failing == L"gate" ? 2 : 1;
        p.job.failRestoreOf = failing;
        const auto codes = p.run();
        for (size_t i = 0; i < 3; ++i)
            EXPECT_TRUE(codes[i] != kTimedOut && (codes[i] == state::Aborting) == (p.job.gate == 2 || names[i] == failing));
        EXPECT_EQ(p.job.gate == 2 ? 3 : 1, p.count(event::StatusMessage, msg::RestoreFailed));
    }
    for (size_t alone : {0u, 1u, 2u}) { // waiting for a neighbour that never comes: a stop message ends the wait
        Pipeline p({L"pipeline-gnu.tar.lzma2"});
        StageThread thread([&] {
            return alone == 0 ? runReaderStream(p.targets[0].get(), p.services)
                              : (alone == 1 ? readerWriterStreamThread : writerStreamThread)(p.targets[alone].get());
        });
        EXPECT_EQ(kTimedOut, thread.join(300)) << alone;
        p.job.state = state::Exiting, p.job.stop = true;
        ASSERT_TRUE(thread.post(alone == 1 ? qvdlm::command::AbortDiscard : qvdlm::command::StopKeep));
        EXPECT_EQ(state::Exiting, thread.join()) << alone;
    }
    for (auto proc : {&readerStreamThread, &readerWriterStreamThread, &writerStreamThread})
        EXPECT_EQ(qvdlm::status::GeneralError, proc(nullptr));
}
