// The download log: its file, the lines it writes for every kind of event, and concurrent writers.
// Entries are compared whole after decoding UTF-16LE; only their time stamps are taken out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "EventPublisher.h"
#include "Log.h"
#include "QvDLMFactory.h"
#include "log/EventPublisherImpl.h"
#include "log/StatsImp.h"
#include "support/FakeRequest.h"
#include "support/MockDownload.h"
#include "support/TestSupport.h"

using ::testing::Return;
using Entries = std::vector<std::wstring>;

namespace {

constexpr wchar_t kBanner[] = L"=== Logging started ===\r\n", kUrl[] = L"http://127.0.0.1:19100/pkg/demo.tar.lzma2?x=1";
const wchar_t* const kTexts[] = {L"open failure", L"download started", L"decompress started", L"unpackage started", L"network disconnected",
                                 L"network connecting", L"network connected", L"server not response", L"network error", L"download completed",
                                 L"decompress completed", L"unpackage completed", L"decompress aborted", L"out of disk space", L"decompress failed",
                                 L"unpackage failed", L"proxy need authentication", L"restore failed", L"", L"", L"general error",
                                 L"Akamai download fall back to Http download", L""}; // 1000 to 1022
DWORD g_ticks = 0;
DWORD WINAPI ticks() { return g_ticks; }
size_t subscribers() { return static_cast<EventPublisherImpl*>(EventPublisher::getInstance())->subscriberCount(); }
std::wstring hex(uint64_t value) { wchar_t text[16]; swprintf(text, 16, L"0x%08x", static_cast<uint32_t>(value)); return text; }

// The entries of a log file without their time stamps "Y/M/D:hh:mm:ss\t"; the file must begin with one.
Entries entries(const std::wstring& path)
{
    std::string bytes;
    EXPECT_TRUE(qvtest::readFile(path, bytes));
    EXPECT_TRUE(bytes.size() % 2 == 0 && bytes.substr(0, 2) != "\xFF\xFE") << "UTF-16LE without a byte-order mark";
    const std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
    const std::wregex stamp(L"(^|\r\n)20\\d\\d/[1-9]\\d?/[1-9]\\d?:[0-2]\\d:[0-5]\\d:[0-5]\\d\t");
    Entries out;
    for (std::wsregex_token_iterator it(text.begin(), text.end(), stamp, -1), end; it != end; ++it)
        out.push_back(it->str() + L"\r\n");
    EXPECT_TRUE(!out.empty() && out.front() == L"\r\n") << "no time stamp at the start";
    if (!out.empty()) {
        out.erase(out.begin());
        out.back().resize(out.back().size() - 2); // the last entry kept its own line end
    }
    return out;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A client loads the resource module before it opens a log; it sits beside the test program.
        ASSERT_NE(resources_ = LoadLibraryW(L"QvDLMRes.dll"), nullptr);
        request_.setBlocks({kUrl, kUrl, kUrl, kUrl});
        request_.setName(L"Tarnwick Demo");
        ON_CALL(download_, getRequest()).WillByDefault(Return(&request_));
        ON_CALL(download_, getStats()).WillByDefault(Return(&stats_));
        ON_CALL(download_, getDownloadedSize()).WillByDefault(Return(123456789012ull));
        log_.reset(QvDLM::createLog(path_.c_str()));
        ASSERT_NE(log_, nullptr);
    }
    void TearDown() override { log_.reset(); if (resources_) FreeLibrary(resources_); }
    void publish(Download* source, uint32_t kind, uint64_t value) { EventRecord record{source, kind, value}; EventPublisher::getInstance()->publish(&record); }
    // The entries since the banner, which must be the first.
    Entries body()
    {
        Entries all = entries(path_);
        EXPECT_TRUE(!all.empty() && all.front() == kBanner);
        return all.empty() ? all : Entries(all.begin() + 1, all.end());
    }
    std::wstring line(const std::wstring& level, const std::wstring& text) const
    {
        return hex(reinterpret_cast<uintptr_t>(&download_)) + L"\t" + level + L":\t " + text + L" for Tarnwick Demo (" + kUrl + L")\r\n";
    }
    std::wstring detail(const std::wstring& text) const { return hex(reinterpret_cast<uintptr_t>(&download_)) + text + L"\r\n"; }
    std::wstring status(uint32_t code) const { return detail(L"\t    _Status: " + hex(code)); }
    void setDownload(uint32_t state, uint32_t code, uint32_t streamError = 0)
    {
        ON_CALL(download_, getState()).WillByDefault(Return(state));
        ON_CALL(download_, getStatus()).WillByDefault(Return(code));
        ON_CALL(download_, getStreamError()).WillByDefault(Return(streamError));
    }

    HMODULE resources_ = nullptr;
    qvtest::ScratchDir dir_{L"log-" + qvtest::widen(::testing::UnitTest::GetInstance()->current_test_info()->name())};
    std::wstring path_ = dir_ / L"download.log";
    FakeRequest request_;
    ::testing::NiceMock<MockDownload> download_;
    StatsImp stats_{&download_, &ticks};
    std::unique_ptr<Log, void (*)(Log*)> log_{nullptr, [](Log* log) { QvDLM::destroy(log); }};
};

} // namespace

TEST_F(LogTest, SubscribersInAddressOrderTheFileItsPlaceAndTheResourceModule)
{
    static std::vector<const void*> order; // who was called, in order
    struct Recorder : EventSubscriber {
        void notify(const EventRecord* record) override { order.push_back(this); last = *record; }
        EventRecord last{};
    } recorders[4], stranger;
    EventPublisher* hub = EventPublisher::getInstance();
    for (int i : {2, 0, 3, 1, 2})
        hub->subscribe(&recorders[i]);
    hub->unsubscribe(&stranger);
    publish(&download_, 4, 1006);
    EXPECT_EQ(order, (std::vector<const void*>{&recorders[0], &recorders[1], &recorders[2], &recorders[3]}));
    EXPECT_TRUE(recorders[3].last.kind == 4 && recorders[3].last.value == 1006 && recorders[3].last.source == &download_);
    hub->unsubscribe(&recorders[0]);
    order.clear();
    publish(nullptr, 4, 1006);
    EXPECT_EQ(order, (std::vector<const void*>{&recorders[1], &recorders[2], &recorders[3]}));
    for (auto& r : recorders)
        hub->unsubscribe(&r);
    const size_t before = subscribers();
    EXPECT_EQ(QvDLM::createLog((dir_ / L"missing\\download.log").c_str()), nullptr);
    EXPECT_EQ(subscribers(), before);
    const std::wstring second = dir_ / L"second.log";
    ASSERT_TRUE(qvtest::writeFile(second, "an older log"));
    ASSERT_TRUE(log_->open(second.c_str())); // reopening moves to the new file, which starts over
    publish(nullptr, 5, reinterpret_cast<uint64_t>(L"after reopening"));
    EXPECT_EQ(entries(second), (Entries{kBanner, L"0x00000000\tWARNING:\t after reopening\r\n"}));
    EXPECT_EQ(body(), (Entries{line(L"DEBUG", L"network connected"), status(0), L"0x00000000\tDEBUG:\t network connected\r\n"})); // nothing after reopening
    log_.reset(QvDLM::createLog(nullptr)); // without a path: a fresh temporary file "QV_*.tmp"
    ASSERT_NE(log_, nullptr);
    wchar_t temp[MAX_PATH];
    WIN32_FIND_DATAW found;
    const HANDLE find = FindFirstFileW((std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + L"QV_*.tmp").c_str(), &found);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    FindClose(find);
    TearDown();
    resources_ = nullptr;
    EXPECT_EQ(QvDLM::createLog(path_.c_str()), nullptr) << "no log without the resource module";
    EXPECT_EQ(subscribers(), before - 1);
}

TEST_F(LogTest, EveryEventGivesItsLines)
{
    struct Row { uint32_t kind; uint64_t value; uint32_t state, status, streamError; const wchar_t* level; std::wstring text; }; // level null: only the status
    std::vector<Row> rows = {
        {1, 0, 0, 0, 0, L"State", L"download completed"},
        {1, 0, 0x20000003, 0x25000008, 0, L"State", L"download paused"},
        {1, 0, 0x20000007, 0x25000008, 0, L"ERROR", L"download aborted (network connecting)"},
        {1, 0, 0x20000007, 0x25000003, 0, L"ERROR", L"download aborted (network disconnected)"},
        {1, 0, 0x20000007, 0, 0x26000005, L"ERROR", L"download aborted (general error)"},
        {1, 0, 0x20000009, 0x25000004, 0, nullptr, L""},
        {3, reinterpret_cast<uint64_t>(L"Active downloads = 2"), 0, 0x25000009, 0, L"INFO", L"Active downloads = 2"},
        {4, 1006, 0, 0, 0, L"DEBUG", L"network connected"},
        {5, reinterpret_cast<uint64_t>(L"slow server"), 0, 0, 0, L"WARNING", L"slow server"},
        {6, 1016, 0, 0, 0, L"ERROR", L"proxy need authentication"},
        {7, reinterpret_cast<uint64_t>(L"kind seven"), 0, 0, 0, L"DEBUG", L"kind seven"},
        {250, 1002, 0, 0, 0, L"DEBUG", L"decompress started"},
        {3, 1010, 0, 0, 0, L"INFO", L"decompress completed"}, // only 1009 adds the statistics
    };
    const std::pair<uint32_t, const wchar_t*> pausedBy[] = {{0x25000005, L"out of disk space"}, {0x25000001, L"open failure"},
        {0x25000002, L"server not response"}, {0x25000003, L"network disconnected"}, {0x25000004, L"network error"},
        {0x25000009, L"proxy need authentication"}, {0x2500000A, L"restore failed"}, {0x25000006, L"general error"}, {0x2600000C, L"general error"}};
    const wchar_t* const states[] = {L"pending", L"init", L"play", L"paused", L"completing", L"exiting", L"aborting", L"aborted", L"removed"};
    for (uint32_t i = 0; i < 9; ++i) // the download is asked for its state; the value does not count
        rows.push_back({1, 0, 0x20000000 + i, 0, 0, L"State", L"download " + std::wstring(states[i])});
    for (const auto& [code, text] : pausedBy)
        rows.push_back({1, 0, 0x20000003, code, 0, L"ERROR", std::wstring(L"download error (") + text + L")"});
    for (uint32_t id = 1000; id <= 1022; ++id) {
        const bool failure = std::wstring(L" 1000 1004 1007 1008 1013 1014 1015 1016 1017 1020 1021 ").find(L" " + std::to_wstring(id) + L" ") != std::wstring::npos;
        rows.push_back({2, id, 0, 0, 0, failure ? L"ERROR" : L"Status", failure ? L"download error (" + std::wstring(kTexts[id - 1000]) + L")" : kTexts[id - 1000]});
    }
    Entries expected;
    for (const Row& row : rows) {
        setDownload(row.state, row.status, row.streamError);
        publish(&download_, row.kind, row.value);
        if (row.level)
            expected.push_back(line(row.level, row.text));
        expected.push_back(status(row.status));
    }
    EXPECT_EQ(body(), expected);
}

TEST_F(LogTest, SnapshotsStatisticsAndEventsWithoutADownload)
{
    setDownload(0x20000002, 0x25000008);
    request_.setBlockId(3), request_.setBlockDownloadedSize(4194304), request_.setTotalDownloadedSize(21474836480ull);
    request_.setExtractedSize(18446744073709551615ull), request_.setStatus(0x25000004), request_.setState(0x20000003);
    publish(&download_, 0, 0);
    g_ticks = 1000, stats_.start(), g_ticks = 43000;
    publish(&download_, 3, 1009);
    ON_CALL(download_, getRequest()).WillByDefault(Return(nullptr));
    publish(&download_, 3, reinterpret_cast<uint64_t>(L"orphan"));
    const std::wstring longText(70000, L'x'), odd = L"Gr\u00F6\u00DFe \u2713 \U0001F600";
    // In 0x00000001000003EC bits 16..31 are clear: the number 1004, never a pointer.
    for (const auto& [kind, value] : {std::pair<uint32_t, uint64_t>{3, reinterpret_cast<uint64_t>(longText.c_str())}, {3, reinterpret_cast<uint64_t>(odd.c_str())},
                                      {6, 0x00000001000003ECull}, {5, 1018}, {1, 0x20000002}})
        publish(nullptr, kind, value);
    EXPECT_EQ(body(), (Entries{line(L"DEBUG", L""), detail(L"\tDEBUG:\tBlock ID:\t3"), detail(L"\tDEBUG:\tBlock Downloaded Bytes:\t4194304"),
                               detail(L"\tDEBUG:\tTotal Downloaded Bytes:\t21474836480"), detail(L"\tDEBUG:\tExtracted Bytes:\t18446744073709551615"),
                               detail(L"\tDEBUG:\tLast Status:\t620756996"), detail(L"\tDEBUG:\tLast State:\t536870915\r\n"), status(0x25000008),
                               line(L"INFO", L"download completed"), detail(L"\tINFO:\tDownload elapsed time:\t42 seconds"),
                               detail(L"\tINFO:\tTotal downloaded data:\t123456789012 bytes"), detail(L"\tINFO:\tDownload speed:\t632913400 bits/s"),
                               status(0x25000008), detail(L"\tINFO:\t orphan"), status(0x25000008), L"0x00000000\tINFO:\t " + longText + L"\r\n",
                               L"0x00000000\tINFO:\t " + odd + L"\r\n", L"0x00000000\tERROR:\t network disconnected\r\n", L"0x00000000\tWARNING:\t \r\n"}));
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveWithinAnEntry)
{
    std::vector<std::thread> writers;
    std::map<std::wstring, int> counts, expected;
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&, t, text = std::wstring(400 + 50 * t, static_cast<wchar_t>(L'A' + t))] {
            for (int i = 0; i < 2500; ++i)
                publish(nullptr, 3, reinterpret_cast<uint64_t>(text.c_str()));
        });
    for (int t = 0; t < 4; ++t)
        writers[t].join(), expected[L"0x00000000\tINFO:\t " + std::wstring(400 + 50 * t, static_cast<wchar_t>(L'A' + t)) + L"\r\n"] = 2500;
    for (const auto& entry : body())
        ++counts[entry];
    EXPECT_EQ(counts, expected) << "torn or lost entries";
}
