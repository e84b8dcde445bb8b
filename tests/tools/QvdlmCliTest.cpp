// The pieces of qvdlm that need no server: command line, formatting, outcome rules, text helpers and
// the event listener.
#include <gtest/gtest.h>

#include <cstring>

#include "CommandLine.h"
#include "Commands.h"
#include "EventCollector.h"
#include "Format.h"
#include "Outcome.h"
#include "TextUtil.h"
#include "Transfers.h"

using namespace qvcli;

namespace {

ParseResult parse(std::vector<std::wstring> args) { return parseCommandLine(args); }

Download* fakeDownload(uintptr_t n) { return reinterpret_cast<Download*>(n * 64); }

} // namespace

// ---- command line ----

TEST(CommandLine, GetTakesEveryOptionInBothForms)
{
    const ParseResult r = parse({L"get", L"http://localhost/a.tar.lzma2", L"--dest", L"C:\\d", L"--name=Pkg",
                                 L"--auth-param", L"authparam", L"--session-param=SESSION_ID", L"--max-active", L"5",
                                 L"--save-interval", L"1M", L"--akamai", L"--log", L"x.log", L"--size", L"10K",
                                 L"--unpacked-size=2G", L"--timeout", L"30", L"--store", L"s.info", L"--file",
                                 L"b.bin"});
    ASSERT_TRUE(r.ok) << r.error;
    const Options& o = r.options;
    EXPECT_EQ(o.command, Command::Get);
    ASSERT_EQ(o.urls.size(), 1u);
    EXPECT_EQ(o.urls[0], L"http://localhost/a.tar.lzma2");
    EXPECT_EQ(o.dest, L"C:\\d");
    EXPECT_EQ(o.name, L"Pkg");
    EXPECT_EQ(o.authParam, L"authparam");
    EXPECT_EQ(o.sessionParam, L"SESSION_ID");
    EXPECT_EQ(o.maxActive, 5);
    EXPECT_TRUE(o.hasSaveInterval);
    EXPECT_EQ(o.saveInterval, 1048576u);
    EXPECT_TRUE(o.akamai);
    EXPECT_EQ(o.logPath, L"x.log");
    EXPECT_EQ(o.size, 10240u);
    EXPECT_EQ(o.unpackedSize, 2ull << 30);
    EXPECT_EQ(o.timeoutSeconds, 30u);
    EXPECT_EQ(o.storePath, L"s.info");
    EXPECT_EQ(o.file, L"b.bin");
}

TEST(CommandLine, SeveralUrlsAndOptionsInAnyOrder)
{
    const ParseResult r = parse({L"get", L"--dest", L"d", L"http://localhost/1", L"http://localhost/2", L"--stop-after", L"3M"});
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.options.urls, (std::vector<std::wstring>{L"http://localhost/1", L"http://localhost/2"}));
    EXPECT_EQ(r.options.stopAfter, 3u << 20);
    EXPECT_FALSE(r.options.hasSaveInterval);
}

TEST(CommandLine, RefusesWhatDoesNotFit)
{
    const std::vector<std::vector<std::wstring>> bad = {
        {L"fetch", L"http://x/"},                         // unknown command
        {L"get"},                                         // no URL
        {L"get", L"http://x/", L"--bogus"},               // unknown option
        {L"get", L"http://x/", L"--key", L"00"},          // option of another command
        {L"list", L"--dest", L"d"},                       // option of another command
        {L"get", L"http://x/", L"--dest"},                // value missing
        {L"get", L"http://x/", L"--dest="},               // empty value
        {L"get", L"http://x/", L"--akamai=1"},            // flag with a value
        {L"get", L"http://x/", L"--max-active", L"0"},    // out of range
        {L"get", L"http://x/", L"--max-active", L"257"},  // out of range
        {L"get", L"http://x/", L"--max-active", L"-1"},   // not a number
        {L"get", L"http://x/", L"--size", L"0"},          // zero size
        {L"get", L"http://x/", L"--size", L"12Q"},        // bad suffix
        {L"get", L"http://x/", L"--timeout", L"0"},       // zero time
        {L"get", L"http://x/", L"--file", L"a\\b"},       // folders in a file name
        {L"get", L"http://x/1", L"http://x/2", L"--file", L"f"},  // one file name, two downloads
        {L"get", L"http://x/1", L"http://x/2", L"--size", L"1M"}, // one size, two packages
        {L"resume", L"extra"},                            // positional argument
        {L"list", L"extra"},
        {L"remove"},                                      // ID missing
        {L"remove", L"a", L"b"},                          // two IDs
        {L"proxy"},                                       // URL missing
        {L"token", L"http://x/"},                         // --key missing
        {L"token", L"http://x/", L"--key", L"61", L"--start", L"soon"},
    };
    for (const auto& args : bad) {
        const ParseResult r = parse(args);
        std::wstring joined;
        for (const auto& a : args)
            joined += a + L" ";
        EXPECT_FALSE(r.ok) << std::string(joined.begin(), joined.end());
        EXPECT_FALSE(r.error.empty());
    }
}

TEST(CommandLine, ErrorNamesTheOffendingOption)
{
    const ParseResult r = parse({L"get", L"http://x/", L"--max-active", L"999"});
    ASSERT_FALSE(r.ok);
    EXPECT_NE(r.error.find(L"--max-active"), std::wstring::npos);
    EXPECT_NE(r.error.find(L"999"), std::wstring::npos);
}

TEST(CommandLine, HelpInEveryForm)
{
    for (const auto& args : std::vector<std::vector<std::wstring>>{{}, {L"help"}, {L"--help"}, {L"-h"}, {L"get", L"--help"}}) {
        const ParseResult r = parse(args);
        EXPECT_TRUE(r.ok);
        EXPECT_EQ(r.options.command, Command::Help);
    }
    EXPECT_NE(std::wcsstr(usageText(), L"qvdlm resume"), nullptr);
}

TEST(CommandLine, OtherCommands)
{
    ParseResult r = parse({L"remove", L"http://localhost/a.bin", L"--store", L"s"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.options.command, Command::Remove);
    EXPECT_EQ(r.options.target, L"http://localhost/a.bin");
    EXPECT_EQ(r.options.storePath, L"s");

    r = parse({L"token", L"http://h/p", L"--key", L"0a0b", L"--start", L"1000", L"--lifetime", L"60", L"--param",
               L"authparam", L"--extra", L"ip"});
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.options.target, L"http://h/p");
    EXPECT_EQ(r.options.keyHex, L"0a0b");
    EXPECT_EQ(r.options.tokenStart, 1000u);
    EXPECT_EQ(r.options.tokenLifetime, 60u);
    EXPECT_EQ(r.options.tokenParam, L"authparam");
    EXPECT_EQ(r.options.tokenExtra, L"ip");

    r = parse({L"token", L"http://h/p", L"--key", L"61"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.options.tokenStart, 0u);
    EXPECT_EQ(r.options.tokenLifetime, 2592000u);

    r = parse({L"proxy", L"http://h/", L"--ask"});
    ASSERT_TRUE(r.ok);
    EXPECT_TRUE(r.options.askCredentials);

    r = parse({L"resume", L"--max-active", L"256", L"--log", L"l"});
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.options.maxActive, 256);
}

TEST(ByteSize, SuffixesAndLimits)
{
    uint64_t v = 0;
    EXPECT_TRUE(parseByteSize(L"123", v));
    EXPECT_EQ(v, 123u);
    EXPECT_TRUE(parseByteSize(L"512K", v));
    EXPECT_EQ(v, 524288u);
    EXPECT_TRUE(parseByteSize(L"7MiB", v));
    EXPECT_EQ(v, 7u << 20);
    EXPECT_TRUE(parseByteSize(L"3kB", v));
    EXPECT_EQ(v, 3072u);
    EXPECT_TRUE(parseByteSize(L"1g", v));
    EXPECT_EQ(v, 1u << 30);
    EXPECT_TRUE(parseByteSize(L"18446744073709551615", v));
    EXPECT_EQ(v, ~0ull);
    for (const wchar_t* bad : {L"", L"K", L"-1", L"1.5M", L"1Mi", L"1MX", L"18446744073709551616", L"17179869184G"})
        EXPECT_FALSE(parseByteSize(bad, v)) << bad;
}

// ---- formatting ----

TEST(Format, Bytes)
{
    EXPECT_EQ(formatBytes(0), L"0 B");
    EXPECT_EQ(formatBytes(1023), L"1023 B");
    EXPECT_EQ(formatBytes(1024), L"1.0 KiB");
    EXPECT_EQ(formatBytes(1536), L"1.5 KiB");
    EXPECT_EQ(formatBytes(1048575), L"1.00 MiB"); // rounds up into the next unit
    EXPECT_EQ(formatBytes(10ull << 20), L"10.0 MiB");
    EXPECT_EQ(formatBytes(3ull << 29), L"1.50 GiB");
    EXPECT_EQ(formatBytes(1536ull << 10), L"1.50 MiB");
    EXPECT_EQ(formatBytes(~0ull).substr(formatBytes(~0ull).size() - 3), L"TiB");
}

TEST(Format, RatesAndDurations)
{
    EXPECT_EQ(formatRate(0), L"0 B/s");
    EXPECT_EQ(formatRate(8ull << 20), L"1.00 MiB/s");
    EXPECT_EQ(formatDuration(-1), L"--:--");
    EXPECT_EQ(formatDuration(0), L"0:00");
    EXPECT_EQ(formatDuration(5), L"0:05");
    EXPECT_EQ(formatDuration(754), L"12:34");
    EXPECT_EQ(formatDuration(3723), L"1:02:03");
}

TEST(Format, Percentages)
{
    EXPECT_EQ(percentTenths(0, 0), -1);
    EXPECT_EQ(percentTenths(1, 3), 333);
    EXPECT_EQ(percentTenths(5, 5), 1000);
    EXPECT_EQ(percentTenths(6, 5), 1000);
    const int huge = percentTenths(~0ull - 1, ~0ull);
    EXPECT_GE(huge, 990);
    EXPECT_LE(huge, 1000);
    EXPECT_EQ(percentTenths(1ull << 62, 1ull << 63), 500);
    EXPECT_EQ(formatPercent(421), L"42.1%");
    EXPECT_EQ(formatPercent(1000), L"100.0%");
    EXPECT_EQ(formatPercent(-1), L"");
}

TEST(Format, ProgressLineWithKnownSize)
{
    ProgressSnapshot s;
    s.label = L"pkg";
    s.done = 512 << 10;
    s.total = 1 << 20;
    s.bitsPerSecond = 8 << 20;
    s.etaSeconds = 65;
    s.stateText = L"download play";
    EXPECT_EQ(progressLine(s, 0), L"pkg  50.0%  512.0 KiB of 1.00 MiB  1.00 MiB/s  ETA 1:05  download play");
}

TEST(Format, ProgressLineWithoutOrWithEstimatedSize)
{
    ProgressSnapshot s;
    s.label = L"pkg";
    s.done = 2048;
    s.stateText = L"download play";
    const std::wstring unknown = progressLine(s, 0);
    EXPECT_EQ(unknown.find(L'%'), std::wstring::npos);
    EXPECT_EQ(unknown.find(L"ETA"), std::wstring::npos);
    EXPECT_NE(unknown.find(L"2.0 KiB"), std::wstring::npos);

    s.total = 4096;
    s.totalEstimated = true;
    const std::wstring estimated = progressLine(s, 0);
    EXPECT_NE(estimated.find(L"~50.0%"), std::wstring::npos);
    EXPECT_EQ(estimated.find(L"ETA"), std::wstring::npos);
}

TEST(Format, ProgressLineFitsTheWidth)
{
    ProgressSnapshot s;
    s.label = std::wstring(200, L'n');
    s.done = 1;
    s.total = 2;
    s.stateText = L"download play";
    for (size_t width : {120u, 60u, 20u}) {
        const std::wstring line = progressLine(s, width);
        EXPECT_LE(line.size(), width);
    }
    const std::wstring line = progressLine(s, 120);
    EXPECT_NE(line.find(L"...  50.0%"), std::wstring::npos) << std::string(line.begin(), line.end());
}

TEST(Format, NameFromUrlPath)
{
    EXPECT_EQ(nameFromUrlPath(L"/p/pkg_001_004.tar.lzma2"), L"pkg");
    EXPECT_EQ(nameFromUrlPath(L"/x/pkg_001_003.sfx.exe"), L"pkg");
    EXPECT_EQ(nameFromUrlPath(L"/X/PKG_002_004.TAR.LZMA2"), L"PKG");
    EXPECT_EQ(nameFromUrlPath(L"/a/data.tar.lzma2"), L"data");
    EXPECT_EQ(nameFromUrlPath(L"/setup.exe"), L"setup.exe");
    EXPECT_EQ(nameFromUrlPath(L"/a/b_0x1_004.tar.lzma2"), L"b_0x1_004");
    EXPECT_EQ(nameFromUrlPath(L"/.tar.lzma2"), L".tar.lzma2");
    EXPECT_EQ(nameFromUrlPath(L""), L"");
}

// ---- outcome ----

TEST(Outcome, ClassifiesStatesWithAndWithoutControlThread)
{
    namespace st = qvdlm::state;
    EXPECT_EQ(classify(st::Completed, true), Outcome::Completed);
    EXPECT_EQ(classify(st::Completed, false), Outcome::Completed);
    EXPECT_EQ(classify(st::Play, true), Outcome::Running);
    EXPECT_EQ(classify(st::Play, false), Outcome::Failed); // stages could not be opened
    EXPECT_EQ(classify(st::Completing, false), Outcome::Running);
    EXPECT_EQ(classify(st::Exiting, true), Outcome::Running);
    EXPECT_EQ(classify(st::Exiting, false), Outcome::Stopped);
    EXPECT_EQ(classify(st::Aborting, true), Outcome::Running);
    EXPECT_EQ(classify(st::Aborting, false), Outcome::Failed);
    EXPECT_EQ(classify(st::Aborted, false), Outcome::Failed);
    EXPECT_EQ(classify(st::Removed, false), Outcome::Failed);
    EXPECT_EQ(classify(st::Pending, false), Outcome::Waiting);
    EXPECT_EQ(classify(st::Init, false), Outcome::Waiting);
    EXPECT_EQ(classify(st::Init, true), Outcome::Running);
    EXPECT_EQ(classify(st::Paused, true), Outcome::Paused);
    EXPECT_EQ(classify(0x2000000F, false), Outcome::Failed);
    EXPECT_TRUE(isFinal(Outcome::Completed));
    EXPECT_TRUE(isFinal(Outcome::Failed));
    EXPECT_TRUE(isFinal(Outcome::Stopped));
    EXPECT_FALSE(isFinal(Outcome::Paused));
    EXPECT_FALSE(isFinal(Outcome::Waiting));
}

TEST(Outcome, TextsComeFromTheLibrary)
{
    EXPECT_EQ(statusText(0), L"");
    EXPECT_EQ(statusText(qvdlm::status::NetworkError), L"network error");
    EXPECT_EQ(statusText(qvdlm::status::OutOfDiskSpace), L"out of disk space");
    EXPECT_EQ(statusText(qvdlm::status::OpenFailure), L"open failure");
    EXPECT_EQ(statusText(qvdlm::status::GeneralError), L"general error");
    EXPECT_EQ(statusText(0x26000010), L"general error, code 0x26000010");

    EXPECT_EQ(describe(qvdlm::state::Play, 0), L"download play");
    EXPECT_EQ(describe(qvdlm::state::Paused, qvdlm::status::NetworkReconnecting), L"download paused");
    EXPECT_EQ(describe(qvdlm::state::Paused, qvdlm::status::NetworkError), L"download paused (network error)");
    EXPECT_EQ(describe(qvdlm::state::Aborted, qvdlm::status::OpenFailure), L"download aborted (open failure)");
    EXPECT_EQ(describe(0x2000000F, 0), L"state 0x2000000F");
}

TEST(Outcome, ExitStatus)
{
    TransferSummary s;
    s.completed = 2;
    EXPECT_EQ(exitStatusFor(s, 2), exitcode::Ok);
    EXPECT_EQ(exitStatusFor(TransferSummary{}, 0), exitcode::Ok);
    s = {};
    s.end = TransferEnd::Interrupted;
    s.completed = 1;
    s.stopped = 1;
    EXPECT_EQ(exitStatusFor(s, 2), exitcode::Stopped);
    s.failed = 1;
    EXPECT_EQ(exitStatusFor(s, 3), exitcode::Failed);
    s = {};
    s.stopped = 1; // the client gave up on a download the library had paused
    EXPECT_EQ(exitStatusFor(s, 1), exitcode::Failed);
    s.end = TransferEnd::TimedOut;
    EXPECT_EQ(exitStatusFor(s, 1), exitcode::Stopped);
}

// ---- text helpers ----

TEST(TextUtil, HexKeys)
{
    std::string key;
    std::wstring error;
    ASSERT_TRUE(decodeHexKey(L"0a0B7f", key, error));
    EXPECT_EQ(key, std::string("\x0a\x0b\x7f"));
    for (const wchar_t* bad : {L"", L"abc", L"zz", L"0g", L"00ff", L"ff00"}) {
        error.clear();
        EXPECT_FALSE(decodeHexKey(bad, key, error)) << bad;
        EXPECT_FALSE(error.empty());
        EXPECT_TRUE(key.empty());
    }
}

TEST(TextUtil, RequestIds)
{
    const std::vector<std::wstring> ids = {L"http://a/x", L"http://a/x2", L"http://b/y"};
    EXPECT_EQ(findRequestId(ids, L"http://a/x"), 0); // exact beats prefix
    EXPECT_EQ(findRequestId(ids, L"http://a/x2"), 1);
    EXPECT_EQ(findRequestId(ids, L"http://b"), 2);
    EXPECT_EQ(findRequestId(ids, L"http://a/"), kAmbiguous);
    EXPECT_EQ(findRequestId(ids, L"http://c"), kNoMatch);
    EXPECT_EQ(findRequestId(ids, L""), kNoMatch);
    EXPECT_EQ(findRequestId({}, L"x"), kNoMatch);
}

TEST(TextUtil, ParentFolders)
{
    EXPECT_EQ(parentFolder(L"C:\\a\\b"), L"C:\\a");
    EXPECT_EQ(parentFolder(L"C:\\a\\b\\"), L"C:\\a");
    EXPECT_EQ(parentFolder(L"C:\\a"), L"C:\\");
    EXPECT_EQ(parentFolder(L"name"), L"");
}

TEST(TextUtil, Utf8RoundTrip)
{
    const std::wstring text = L"gr\u00fc\u00dfe \u4e16\u754c";
    EXPECT_EQ(toUtf8(text), std::string("gr\xc3\xbc\xc3\x9f" "e \xe4\xb8\x96\xe7\x95\x8c"));
    EXPECT_EQ(fromUtf8(toUtf8(text)), text);
    EXPECT_EQ(toUtf8(L""), "");
}

// ---- events ----

TEST(EventCollector, KeepsStatusMessagesPerDownload)
{
    EventCollector c;
    EventRecord a{fakeDownload(1), qvdlm::event::StatusMessage, qvdlm::msg::NetworkError};
    EventRecord b{fakeDownload(2), qvdlm::event::Error, qvdlm::msg::DecompressFailed};
    EventRecord state{fakeDownload(1), qvdlm::event::StateChange, qvdlm::state::Paused};
    c.notify(&a);
    c.notify(&b);
    c.notify(&state);
    c.notify(nullptr);
    EXPECT_EQ(c.lastMessage(fakeDownload(1)), qvdlm::msg::NetworkError);
    EXPECT_EQ(c.lastMessage(fakeDownload(2)), qvdlm::msg::DecompressFailed);
    EXPECT_EQ(c.lastMessage(fakeDownload(3)), 0u);
}

TEST(EventCollector, CopiesTextLinesAboutUrls)
{
    EventCollector c;
    wchar_t text[] = L"validateUrl: HTTP status: 404\thttp://localhost:1/missing.bin ";
    EventRecord line{nullptr, qvdlm::event::Information, reinterpret_cast<uintptr_t>(text)};
    c.notify(&line);
    text[0] = L'X'; // the library's buffer is gone after publish
    const auto found = c.linesAbout(L"http://localhost:1/missing.bin");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].substr(0, 12), L"validateUrl:");
    EXPECT_TRUE(c.linesAbout(L"http://elsewhere/").empty());
    EXPECT_TRUE(c.linesAbout(L"").empty());

    for (size_t i = 0; i < EventCollector::kMaxLines + 5; ++i) {
        wchar_t other[] = L"http://localhost:1/other";
        EventRecord more{nullptr, qvdlm::event::Information, reinterpret_cast<uintptr_t>(other)};
        c.notify(&more);
    }
    EXPECT_TRUE(c.linesAbout(L"missing.bin").empty()); // the oldest lines give way
    EXPECT_EQ(c.linesAbout(L"/other").size(), EventCollector::kMaxLines);
}
