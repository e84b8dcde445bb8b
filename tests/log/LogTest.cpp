// The download log: its file, the lines it writes for every kind of event, its resource module and
// its behaviour under concurrent writers. Lines are compared byte for byte after decoding UTF-16LE by
// hand; only the time stamps, checked separately, are taken out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cwctype>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "EventPublisher.h"
#include "Log.h"
#include "LogTestDoubles.h"
#include "QvDLMCodes.h"
#include "QvDLMFactory.h"
#include "log/EventPublisherImpl.h"
#include "log/LogImp.h"
#include "common/Win32Raii.h"
#include "support/MockDownload.h"
#include "support/TestSupport.h"

using ::testing::NiceMock;
using ::testing::Return;
using namespace qvdlm;

namespace {

constexpr wchar_t kBanner[] = L"=== Logging started ===\r\n";
constexpr const wchar_t* kName = L"Tarnwick Demo";
constexpr const wchar_t* kUrl = L"http://127.0.0.1:19100/pkg/demo.tar.lzma2?x=1";

struct LogDeleter {
    void operator()(Log* log) const { QvDLM::destroy(log); }
};
using LogPtr = std::unique_ptr<Log, LogDeleter>;

size_t subscriberCount() { return static_cast<EventPublisherImpl*>(EventPublisher::getInstance())->subscriberCount(); }

std::string utf16le(const std::wstring& text)
{
    std::string bytes;
    for (wchar_t c : text) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>((c >> 8) & 0xFF));
    }
    return bytes;
}

std::wstring fromUtf16le(const std::string& bytes)
{
    std::wstring text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        text.push_back(static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                            (static_cast<unsigned char>(bytes[i + 1]) << 8)));
    return text;
}

// "0x%08x" of the low 32 bits of an address, computed without printf.
std::wstring sourceField(const void* source)
{
    std::wostringstream out;
    out << L"0x" << std::hex << std::setw(8) << std::setfill(L'0')
        << static_cast<uint32_t>(reinterpret_cast<uintptr_t>(source));
    return out.str();
}

bool allDigits(const std::wstring& text, size_t from, size_t count)
{
    if (from + count > text.size())
        return false;
    for (size_t i = from; i < from + count; ++i)
        if (!std::iswdigit(text[i]))
            return false;
    return true;
}

// Length of a time stamp "Y/M/D:hh:mm:ss\t" at pos (month and day without padding), or 0.
size_t stampLengthAt(const std::wstring& text, size_t pos)
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    if (!allDigits(text, pos, 4))
        return 0;
    const int year = std::stoi(text.substr(pos, 4));
    if (year < now.wYear - 1 || year > now.wYear)
        return 0;
    size_t p = pos + 4;
    for (int field = 0; field < 2; ++field) { // month, day
        if (p >= text.size() || text[p] != L'/')
            return 0;
        ++p;
        const size_t digits = allDigits(text, p, 2) ? 2 : (allDigits(text, p, 1) ? 1 : 0);
        if (digits == 0 || text[p] == L'0')
            return 0;
        const int value = std::stoi(text.substr(p, digits));
        if (value < 1 || value > (field == 0 ? 12 : 31))
            return 0;
        p += digits;
    }
    const int limits[] = {23, 59, 59};
    for (int limit : limits) {
        if (p >= text.size() || text[p] != L':' || !allDigits(text, p + 1, 2))
            return 0;
        if (std::stoi(text.substr(p + 1, 2)) > limit)
            return 0;
        p += 3;
    }
    if (p >= text.size() || text[p] != L'\t')
        return 0;
    return p + 1 - pos;
}

// The entries of a log file, each without its time stamp. Every entry must begin with a valid stamp
// where the previous one ended with "\r\n"; a stamp found anywhere else is an error.
::testing::AssertionResult readEntries(const std::wstring& path, std::vector<std::wstring>& entries)
{
    entries.clear();
    std::string bytes;
    if (!qvtest::readFile(path, bytes))
        return ::testing::AssertionFailure() << "cannot read " << qvtest::narrow(path);
    if (bytes.size() % 2 != 0)
        return ::testing::AssertionFailure() << "odd byte count " << bytes.size();
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE)
        return ::testing::AssertionFailure() << "the log starts with a byte-order mark";
    const std::wstring text = fromUtf16le(bytes);
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t stamp = stampLengthAt(text, pos);
        if (stamp == 0)
            return ::testing::AssertionFailure() << "no time stamp at character " << pos << " of entry "
                                                 << entries.size();
        // The entry runs to the next "\r\n" that is followed by a stamp (or the end).
        size_t end = pos + stamp;
        for (;;) {
            const size_t crlf = text.find(L"\r\n", end);
            if (crlf == std::wstring::npos) {
                end = text.size();
                break;
            }
            end = crlf + 2;
            if (end == text.size() || stampLengthAt(text, end) != 0)
                break;
        }
        entries.push_back(text.substr(pos + stamp, end - pos - stamp));
        pos = end;
    }
    return ::testing::AssertionSuccess();
}

std::vector<std::wstring> temporaryLogFiles()
{
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((std::wstring(folder) + L"QV_*.tmp").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do
            names.push_back(std::wstring(folder) + data.cFileName);
        while (FindNextFileW(find, &data));
        FindClose(find);
    }
    return names;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A client loads the resource module before it opens a log; it sits beside the test program.
        resources_ = LoadLibraryW(L"QvDLMRes.dll");
        ASSERT_NE(resources_, nullptr) << "QvDLMRes.dll must be built beside the test program";
        ON_CALL(download_, getRequest()).WillByDefault(Return(&request_));
        ON_CALL(download_, getStats()).WillByDefault(Return(&stats_));
        ON_CALL(request_, getName()).WillByDefault(Return(kName));
        ON_CALL(request_, getUrl(false)).WillByDefault(Return(kUrl));
    }

    void TearDown() override
    {
        log_.reset();
        if (resources_)
            FreeLibrary(resources_);
    }

    void openLog()
    {
        log_.reset(QvDLM::createLog(path_.c_str()));
        ASSERT_NE(log_, nullptr);
    }

    void publish(Download* source, uint32_t kind, uint64_t value)
    {
        EventRecord record{source, kind, value};
        EventPublisher::getInstance()->publish(&record);
    }

    void publishText(Download* source, uint32_t kind, const wchar_t* text)
    {
        publish(source, kind, reinterpret_cast<uint64_t>(text));
    }

    // The entries written since the banner, which must be the first entry.
    std::vector<std::wstring> body()
    {
        std::vector<std::wstring> entries;
        EXPECT_TRUE(readEntries(path_, entries));
        if (entries.empty() || entries.front() != kBanner) {
            ADD_FAILURE() << "the log does not begin with its banner";
            return entries;
        }
        entries.erase(entries.begin());
        return entries;
    }

    std::wstring id() const { return sourceField(&download_); }
    std::wstring forPart() const { return std::wstring(L" for ") + kName + L" (" + kUrl + L")"; }
    std::wstring line(const std::wstring& level, const std::wstring& text) const
    {
        return id() + L"\t" + level + L":\t " + text + forPart() + L"\r\n";
    }
    std::wstring statusLine(uint32_t code) const
    {
        std::wostringstream out;
        out << id() << L"\t    _Status: 0x" << std::hex << std::setw(8) << std::setfill(L'0') << code << L"\r\n";
        return out.str();
    }

    void setDownload(uint32_t downloadState, uint32_t code, uint32_t streamError = 0)
    {
        ON_CALL(download_, getState()).WillByDefault(Return(downloadState));
        ON_CALL(download_, getStatus()).WillByDefault(Return(code));
        ON_CALL(download_, getStreamError()).WillByDefault(Return(streamError));
    }

    HMODULE resources_ = nullptr;
    qvtest::ScratchDir dir_{L"log-" + qvtest::widen(::testing::UnitTest::GetInstance()->current_test_info()->name())};
    std::wstring path_ = dir_ / L"download.log";
    NiceMock<MockDownloadRequest> request_;
    NiceMock<MockStats> stats_;
    NiceMock<MockDownload> download_;
    LogPtr log_;
};

using Entries = std::vector<std::wstring>;

// --- The file ---------------------------------------------------------------------------------------

TEST_F(LogTest, FileStartsWithStampedBannerInUtf16WithoutByteOrderMark)
{
    openLog();
    std::string bytes;
    ASSERT_TRUE(qvtest::readFile(path_, bytes));
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_NE(bytes.substr(0, 2), std::string("\xFF\xFE"));
    EXPECT_EQ(bytes[1], '\0') << "the first character is not UTF-16LE";
    const std::string banner = utf16le(kBanner);
    ASSERT_GT(bytes.size(), banner.size());
    EXPECT_EQ(bytes.substr(bytes.size() - banner.size()), banner);
    EXPECT_EQ(bytes.substr(bytes.size() - 4), std::string("\r\0\n\0", 4));

    std::vector<std::wstring> entries;
    ASSERT_TRUE(readEntries(path_, entries));
    EXPECT_EQ(entries, Entries{kBanner});
}

TEST_F(LogTest, OpeningReplacesAnExistingFile)
{
    ASSERT_TRUE(qvtest::writeFile(path_, utf16le(L"an older log that must go\r\n")));
    openLog();
    EXPECT_EQ(body(), Entries{});
}

TEST_F(LogTest, NullPathWritesToAFreshQvTemporaryFile)
{
    const std::vector<std::wstring> before = temporaryLogFiles();
    log_.reset(QvDLM::createLog(nullptr));
    ASSERT_NE(log_, nullptr);
    std::vector<std::wstring> fresh;
    for (const auto& name : temporaryLogFiles())
        if (std::find(before.begin(), before.end(), name) == before.end())
            fresh.push_back(name);
    ASSERT_EQ(fresh.size(), 1u);
    const std::wstring file = fresh.front().substr(fresh.front().rfind(L'\\') + 1);
    EXPECT_EQ(file.substr(0, 3), L"QV_");

    publishText(nullptr, event::Information, L"into the temporary log");
    log_.reset();
    std::vector<std::wstring> entries;
    EXPECT_TRUE(readEntries(fresh.front(), entries));
    EXPECT_EQ(entries, (Entries{kBanner, L"0x00000000\tINFO:\t into the temporary log\r\n"}));
    DeleteFileW(fresh.front().c_str());
}

TEST_F(LogTest, NoLogWithoutTheResourceModuleAndNoSubscriberLeft)
{
    FreeLibrary(resources_);
    resources_ = nullptr;
    ASSERT_EQ(GetModuleHandleW(L"QvDLMRes.dll"), nullptr);
    const size_t subscribers = subscriberCount();

    EXPECT_EQ(QvDLM::createLog(path_.c_str()), nullptr);
    EXPECT_EQ(subscriberCount(), subscribers);
    // The file itself could be made: the missing module alone refuses the log.
    EXPECT_TRUE(qvtest::fileExists(path_));
}

TEST_F(LogTest, NoLogInAFolderThatDoesNotExist)
{
    const size_t subscribers = subscriberCount();
    const std::wstring missing = dir_ / L"no-such-folder\\download.log";
    EXPECT_EQ(QvDLM::createLog(missing.c_str()), nullptr);
    EXPECT_EQ(subscriberCount(), subscribers);
    EXPECT_FALSE(qvtest::fileExists(missing));
}

TEST_F(LogTest, SubscribedUntilDestroyed)
{
    const size_t subscribers = subscriberCount();
    openLog();
    EXPECT_EQ(subscriberCount(), subscribers + 1);
    EXPECT_EQ(static_cast<LogImp*>(log_.get())->resourceModule(), resources_);
    log_.reset();
    EXPECT_EQ(subscriberCount(), subscribers);
    QvDLM::destroy(static_cast<Log*>(nullptr));
}

TEST_F(LogTest, ReopeningStartsTheNewFileAndLeavesTheOldOne)
{
    openLog();
    const std::wstring second = dir_ / L"second.log";
    ASSERT_TRUE(log_->open(second.c_str()));
    publishText(nullptr, event::Warning, L"after reopening");

    std::vector<std::wstring> entries;
    ASSERT_TRUE(readEntries(second, entries));
    EXPECT_EQ(entries, (Entries{kBanner, L"0x00000000\tWARNING:\t after reopening\r\n"}));
    EXPECT_EQ(body(), Entries{});
}

// --- The resource module ----------------------------------------------------------------------------

TEST_F(LogTest, ResourceModuleHoldsEveryMessageTextAsUtf16)
{
    for (uint32_t message = msg::First; message <= msg::Last; ++message) {
        SCOPED_TRACE(message);
        wchar_t text[256] = {};
        const int length = LoadStringW(resources_, message, text, 256);
        const wchar_t* expected = messageText(message);
        if (expected) {
            EXPECT_STREQ(text, expected);
            EXPECT_EQ(length, static_cast<int>(wcslen(expected)));
        } else {
            EXPECT_EQ(length, 0) << "unassigned number with a text";
        }
    }
}

// --- State lines ------------------------------------------------------------------------------------

TEST_F(LogTest, StateChangeWritesTheDownloadsStateThenItsStatus)
{
    openLog();
    setDownload(state::Play, 0);
    // The value is not what is logged: the download is asked for its state.
    publish(&download_, event::StateChange, state::Pending);
    EXPECT_EQ(body(), (Entries{line(L"State", L"download play"), statusLine(0)}));
}

TEST_F(LogTest, EveryStateWithoutErrorIsLoggedByName)
{
    const std::pair<uint32_t, const wchar_t*> states[] = {
        {state::Completed, L"download completed"},   {state::Pending, L"download pending"},
        {state::Init, L"download init"},             {state::Play, L"download play"},
        {state::Paused, L"download paused"},         {state::Completing, L"download completing"},
        {state::Exiting, L"download exiting"},       {state::Aborting, L"download aborting"},
        {state::Aborted, L"download aborted"},       {state::Removed, L"download removed"},
    };
    openLog();
    Entries expected;
    for (const auto& [value, name] : states) {
        setDownload(value, 0);
        publish(&download_, event::StateChange, value);
        expected.push_back(line(L"State", name));
        expected.push_back(statusLine(0));
    }
    EXPECT_EQ(body(), expected);
}

TEST_F(LogTest, PausedWhileReconnectingIsPlainPaused)
{
    openLog();
    setDownload(state::Paused, status::NetworkReconnecting);
    publish(&download_, event::StateChange, state::Paused);
    EXPECT_EQ(body(), (Entries{line(L"State", L"download paused"), statusLine(status::NetworkReconnecting)}));
}

TEST_F(LogTest, PausedWithAnErrorIsAnErrorLineNamingTheStatus)
{
    const std::pair<uint32_t, const wchar_t*> cases[] = {
        {status::OutOfDiskSpace, L"out of disk space"},
        {status::OpenFailure, L"open failure"},
        {status::ServerNotResponding, L"server not response"},
        {status::NetworkDisconnected, L"network disconnected"},
        {status::NetworkError, L"network error"},
        {status::ProxyAuthRequired, L"proxy need authentication"},
        {status::RestoreFailed, L"restore failed"},
        {0x25000006, L"general error"},
        {status::SetupFailed, L"general error"},
        {HttpErrorBase + 12029, L"general error"},
    };
    openLog();
    Entries expected;
    for (const auto& [code, text] : cases) {
        setDownload(state::Paused, code);
        publish(&download_, event::StateChange, state::Paused);
        expected.push_back(line(L"ERROR", std::wstring(L"download error (") + text + L")"));
        expected.push_back(statusLine(code));
    }
    EXPECT_EQ(body(), expected);
}

TEST_F(LogTest, AbortedIsAnErrorLineWhenStatusOrStreamErrorIsSet)
{
    openLog();
    setDownload(state::Aborted, 0, 0);
    publish(&download_, event::StateChange, 0);
    setDownload(state::Aborted, status::NetworkReconnecting, 0);
    publish(&download_, event::StateChange, 0);
    setDownload(state::Aborted, status::NetworkDisconnected, 0);
    publish(&download_, event::StateChange, 0);
    setDownload(state::Aborted, 0, HttpErrorBase + 5);
    publish(&download_, event::StateChange, 0);
    EXPECT_EQ(body(), (Entries{
                          line(L"State", L"download aborted"),
                          statusLine(0),
                          line(L"ERROR", L"download aborted (network connecting)"),
                          statusLine(status::NetworkReconnecting),
                          line(L"ERROR", L"download aborted (network disconnected)"),
                          statusLine(status::NetworkDisconnected),
                          line(L"ERROR", L"download aborted (general error)"),
                          statusLine(0),
                      }));
}

TEST_F(LogTest, UnknownStateWritesOnlyTheStatusLine)
{
    openLog();
    setDownload(0x20000009, status::NetworkError);
    publish(&download_, event::StateChange, 0x20000009);
    EXPECT_EQ(body(), Entries{statusLine(status::NetworkError)});
}

TEST_F(LogTest, StateChangeWithoutDownloadWritesNothing)
{
    openLog();
    publish(nullptr, event::StateChange, state::Play);
    EXPECT_EQ(body(), Entries{});
}

// --- Status lines -----------------------------------------------------------------------------------

TEST_F(LogTest, StatusMessagesOfFailuresAreErrorLines)
{
    const uint32_t failures[] = {1000, 1004, 1007, 1008, 1013, 1014, 1015, 1016, 1017, 1020, 1021};
    openLog();
    setDownload(state::Play, status::NetworkError);
    Entries expected;
    for (uint32_t message : failures) {
        publish(&download_, event::StatusMessage, message);
        expected.push_back(line(L"ERROR", std::wstring(L"download error (") + messageText(message) + L")"));
        expected.push_back(statusLine(status::NetworkError));
    }
    EXPECT_EQ(body(), expected);
}

TEST_F(LogTest, OtherStatusMessagesArePlainStatusLines)
{
    const std::pair<uint32_t, const wchar_t*> cases[] = {
        {1001, L"download started"},     {1002, L"decompress started"},   {1003, L"unpackage started"},
        {1005, L"network connecting"},   {1006, L"network connected"},    {1009, L"download completed"},
        {1010, L"decompress completed"}, {1011, L"unpackage completed"},  {1012, L"decompress aborted"},
        {1018, L""},                     {1019, L""},                     {1022, L""},
    };
    openLog();
    Entries expected;
    for (const auto& [message, text] : cases) {
        publish(&download_, event::StatusMessage, message);
        expected.push_back(line(L"Status", text));
        expected.push_back(statusLine(0));
    }
    EXPECT_EQ(body(), expected);
}

// --- Message lines ----------------------------------------------------------------------------------

TEST_F(LogTest, MessageKindsWriteTheirLevelWords)
{
    openLog();
    setDownload(state::Play, status::ProxyAuthRequired);
    publishText(&download_, event::Information, L"Active download counts = 2");
    publish(&download_, event::Debug, msg::NetworkConnected);
    publishText(&download_, event::Warning, L"slow server");
    publish(&download_, event::Error, msg::ProxyNeedAuthentication);
    publishText(&download_, 7, L"kind seven");
    publish(&download_, 250, msg::DecompressStarted);
    const std::wstring status = statusLine(status::ProxyAuthRequired);
    EXPECT_EQ(body(), (Entries{
                          line(L"INFO", L"Active download counts = 2"), status,
                          line(L"DEBUG", L"network connected"), status,
                          line(L"WARNING", L"slow server"), status,
                          line(L"ERROR", L"proxy need authentication"), status,
                          line(L"DEBUG", L"kind seven"), status,
                          line(L"DEBUG", L"decompress started"), status,
                      }));
}

TEST_F(LogTest, EventsWithoutDownloadHaveAZeroSourceAndNoStatusLine)
{
    openLog();
    publishText(nullptr, event::Warning, L"url is not trusted");
    publish(nullptr, event::Error, msg::GeneralError);
    EXPECT_EQ(body(), (Entries{L"0x00000000\tWARNING:\t url is not trusted\r\n",
                               L"0x00000000\tERROR:\t general error\r\n"}));
}

TEST_F(LogTest, ValueIsAMessageNumberWhenBitsSixteenToThirtyOneAreClear)
{
    openLog();
    // Upper 32 bits set, bits 16..31 clear: still the number 1004, never dereferenced.
    publish(nullptr, event::Error, 0x00000001000003ECull);
    publish(nullptr, event::Warning, 1018);
    publish(nullptr, event::Information, 999);
    EXPECT_EQ(body(), (Entries{L"0x00000000\tERROR:\t network disconnected\r\n", L"0x00000000\tWARNING:\t \r\n",
                               L"0x00000000\tINFO:\t \r\n"}));
}

TEST_F(LogTest, DownloadWithoutRequestHasNoForPart)
{
    openLog();
    ON_CALL(download_, getRequest()).WillByDefault(Return(nullptr));
    publishText(&download_, event::Information, L"orphan");
    EXPECT_EQ(body(), (Entries{id() + L"\tINFO:\t orphan\r\n", statusLine(0)}));
}

TEST_F(LogTest, TextOutsideAsciiIsWrittenAsUtf16)
{
    openLog();
    const std::wstring text = L"Gr\u00F6\u00DFe \u2713 \U0001F600";
    publishText(nullptr, event::Information, text.c_str());
    EXPECT_EQ(body(), Entries{L"0x00000000\tINFO:\t " + text + L"\r\n"});

    std::string bytes;
    ASSERT_TRUE(qvtest::readFile(path_, bytes));
    const std::string tail("\xF6\x00\xDF\x00" "e\x00 \x00\x13\x27 \x00\x3D\xD8\x00\xDE\r\x00\n\x00", 20);
    ASSERT_GE(bytes.size(), tail.size());
    EXPECT_EQ(bytes.substr(bytes.size() - tail.size()), tail);
}

// --- Progress and completion ------------------------------------------------------------------------

TEST_F(LogTest, ProgressSnapshotListsTheRequestsCounters)
{
    openLog();
    setDownload(state::Play, status::NetworkReconnecting);
    ON_CALL(request_, getBlockId()).WillByDefault(Return(3));
    ON_CALL(request_, getBlockDownloadedSize()).WillByDefault(Return(4194304ull));
    ON_CALL(request_, getTotalDownloadedSize()).WillByDefault(Return(21474836480ull));
    ON_CALL(request_, getExtractedSize()).WillByDefault(Return(18446744073709551615ull));
    ON_CALL(request_, getStatus()).WillByDefault(Return(status::NetworkError));
    ON_CALL(request_, getState()).WillByDefault(Return(state::Paused));
    publish(&download_, event::Progress, 0);
    const std::wstring source = id();
    EXPECT_EQ(body(), (Entries{
                          line(L"DEBUG", L""),
                          source + L"\tDEBUG:\tBlock ID:\t3\r\n",
                          source + L"\tDEBUG:\tBlock Downloaded Bytes:\t4194304\r\n",
                          source + L"\tDEBUG:\tTotal Downloaded Bytes:\t21474836480\r\n",
                          source + L"\tDEBUG:\tExtracted Bytes:\t18446744073709551615\r\n",
                          source + L"\tDEBUG:\tLast Status:\t620756996\r\n",
                          source + L"\tDEBUG:\tLast State:\t536870915\r\n\r\n",
                          statusLine(status::NetworkReconnecting),
                      }));
}

TEST_F(LogTest, CompletedTransferAddsElapsedTimeBytesAndSpeed)
{
    openLog();
    EXPECT_CALL(stats_, getElapsedSeconds()).WillRepeatedly(Return(42));
    EXPECT_CALL(stats_, getDownloadedSize()).WillRepeatedly(Return(123456789012ull));
    EXPECT_CALL(stats_, getAverageSpeed()).WillRepeatedly(Return(23515579u));
    publish(&download_, event::Information, msg::DownloadCompleted);
    const std::wstring source = id();
    EXPECT_EQ(body(), (Entries{
                          line(L"INFO", L"download completed"),
                          source + L"\tINFO:\tDownload elapsed time:\t42 seconds\r\n",
                          source + L"\tINFO:\tTotal downloaded data:\t123456789012 bytes\r\n",
                          source + L"\tINFO:\tDownload speed:\t23515579 bits/s\r\n",
                          statusLine(0),
                      }));
}

TEST_F(LogTest, OnlyTheCompletionNumberAddsStatistics)
{
    openLog();
    EXPECT_CALL(stats_, getElapsedSeconds()).Times(0);
    EXPECT_CALL(stats_, getAverageSpeed()).Times(0);
    publishText(&download_, event::Information, L"download completed");
    publish(&download_, event::StatusMessage, msg::DownloadCompleted);
    publish(&download_, event::Information, msg::DecompressCompleted);
    publish(nullptr, event::Information, msg::DownloadCompleted);
    EXPECT_EQ(body(), (Entries{
                          line(L"INFO", L"download completed"), statusLine(0),
                          line(L"Status", L"download completed"), statusLine(0),
                          line(L"INFO", L"decompress completed"), statusLine(0),
                          L"0x00000000\tINFO:\t download completed\r\n",
                      }));
}

// --- Long entries -----------------------------------------------------------------------------------

TEST_F(LogTest, MessagesBeyondTheFirstBufferAreWrittenWhole)
{
    // An INFO line without download adds 20 characters to its text; the first buffer holds 255.
    const size_t lengths[] = {1, 233, 234, 235, 236, 237, 255, 256, 300, 489, 490, 491, 1000, 1001, 4096, 70000};
    openLog();
    Entries expected;
    std::vector<std::wstring> texts;
    for (size_t length : lengths) {
        std::wstring text;
        for (size_t i = 0; i < length; ++i)
            text.push_back(static_cast<wchar_t>(L'a' + (i * 7 + length) % 26));
        texts.push_back(text);
        publishText(nullptr, event::Information, texts.back().c_str());
        expected.push_back(L"0x00000000\tINFO:\t " + text + L"\r\n");
    }
    const Entries entries = body();
    ASSERT_EQ(entries.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(lengths[i]);
        EXPECT_EQ(entries[i].size(), expected[i].size());
        EXPECT_TRUE(entries[i] == expected[i]);
    }
}

TEST_F(LogTest, LongNameAndUrlAreWrittenWhole)
{
    const std::wstring url = L"http://127.0.0.1:19100/" + std::wstring(3000, L'u') + L".tar.lzma2";
    const std::wstring name(700, L'n');
    ON_CALL(request_, getName()).WillByDefault(Return(name.c_str()));
    ON_CALL(request_, getUrl(false)).WillByDefault(Return(url.c_str()));
    openLog();
    setDownload(state::Paused, status::OutOfDiskSpace);
    publish(&download_, event::StateChange, state::Paused);
    EXPECT_EQ(body(), (Entries{id() + L"\tERROR:\t download error (out of disk space) for " + name + L" (" + url + L")\r\n",
                               statusLine(status::OutOfDiskSpace)}));
}

// --- Concurrency ------------------------------------------------------------------------------------

TEST_F(LogTest, ConcurrentWritersNeverInterleaveWithinAnEntry)
{
    constexpr int kThreads = 4;
    constexpr int kEntries = 2500;
    openLog();
    std::vector<std::wstring> texts;
    for (int t = 0; t < kThreads; ++t)
        texts.push_back(std::wstring(400 + 50 * t, static_cast<wchar_t>(L'A' + t)));
    // All writers start together so that they really overlap.
    qv::UniqueHandle go(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ASSERT_TRUE(go);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            WaitForSingleObject(go.get(), 10000);
            for (int i = 0; i < kEntries; ++i)
                publishText(nullptr, event::Information, texts[t].c_str());
        });
    SetEvent(go.get());
    for (auto& writer : writers)
        writer.join();

    const Entries entries = body();
    ASSERT_EQ(entries.size(), static_cast<size_t>(kThreads * kEntries));
    int counts[kThreads] = {};
    for (const auto& entry : entries) {
        bool known = false;
        for (int t = 0; t < kThreads; ++t) {
            if (entry == L"0x00000000\tINFO:\t " + texts[t] + L"\r\n") {
                ++counts[t];
                known = true;
            }
        }
        ASSERT_TRUE(known) << "a torn entry of " << entry.size() << " characters";
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(counts[t], kEntries);
}

} // namespace
