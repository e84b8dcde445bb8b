// qvdlm's pieces that need no server: the command lines it accepts and refuses, whole commands run in
// this process with their output and exit status (a scratch store; no server listens on port 1), and
// the numbers and names it prints. qvdlm_cli_test.sh runs qvdlm.exe for what needs real downloads.
#include <gtest/gtest.h>

#include <cwchar>
#include <tuple>

#include "CommandLine.h"
#include "Commands.h"
#include "Failure.h"
#include "Format.h"
#include "Outcome.h"
#include "QvDLM.h"
#include "support/TestSupport.h"

using namespace qvcli;
using Args = std::vector<std::wstring>;

TEST(CommandLine, ReadsValuesInBothFormsUpToTheirLimits) // the values that qvdlm_cli_test.sh does not pass
{
    const Options o = parseCommandLine({L"get", L"http://h/a", L"--auth-param=ap", L"--session-param", L"sp",
        L"--akamai", L"--size", L"3kB", L"--unpacked-size=1g", L"--save-interval", L"7MiB", L"--stop-after",
        L"18446744073709551615", L"--max-active", L"256", L"--timeout", L"4294967"}).options;
    EXPECT_EQ(o.authParam + L"|" + o.sessionParam, L"ap|sp");
    EXPECT_TRUE(o.akamai && o.hasSaveInterval && o.maxActive == 256 && o.timeoutSeconds == 4294967u);
    EXPECT_EQ(std::make_tuple(o.size, o.unpackedSize, o.saveInterval, o.stopAfter),
              std::make_tuple(3072ull, 1073741824ull, 7340032ull, 18446744073709551615ull));
}

TEST(CommandLine, RefusesWithAReasonThatNamesTheFault)
{
    const struct { Args args; const wchar_t* named; } table[] = {
        {{L"fetch", L"x"}, L"\"fetch\""}, {{L"get"}, L"URL"}, {{L"get", L"x", L"--bogus"}, L"--bogus"},
        {{L"get", L"x", L"--key", L"61"}, L"--key"}, {{L"list", L"--dest", L"d"}, L"--dest"},
        {{L"get", L"x", L"--dest"}, L"needs a value"}, {{L"get", L"x", L"--dest="}, L"expects a value"},
        {{L"get", L"x", L"--akamai=1"}, L"takes no value"}, {{L"get", L"x", L"--max-active", L"0"}, L"\"0\""},
        {{L"get", L"x", L"--max-active", L"257"}, L"\"257\""}, {{L"get", L"x", L"--timeout", L"0"}, L"\"0\""},
        {{L"get", L"x", L"--timeout", L"4294968"}, L"\"4294968\""}, {{L"get", L"x", L"--size", L"0"}, L"\"0\""},
        {{L"get", L"x", L"--size", L"12Q"}, L"\"12Q\""}, {{L"get", L"x", L"--size", L"1Mi"}, L"\"1Mi\""},
        {{L"get", L"x", L"--size", L"18446744073709551616"}, L"--size"}, {{L"proxy"}, L"one URL"},
        {{L"get", L"x", L"--size", L"17179869184G"}, L"--size"}, {{L"get", L"x", L"--file", L"a\\b"}, L"folders"},
        {{L"get", L"http://h/x", L"HTTPS://h/y", L"--file", L"f"}, L"one URL"}, {{L"get", L"localhost/x"}, L"http://"},
        {{L"get", L"http://h/x", L"http://h/y", L"--size", L"1M"}, L"one URL"}, {{L"get", L"ftp://h/x"}, L"http://"},
        {{L"resume", L"extra"}, L"\"extra\""}, {{L"remove", L"a", L"b"}, L"one ID"}, {{L"token", L"x"}, L"--key"},
        {{L"token", L"x", L"--key", L"61", L"--start", L"soon"}, L"\"soon\""},
    };
    for (const auto& row : table) {
        const ParseResult r = parseCommandLine(row.args);
        EXPECT_TRUE(!r.ok && r.error.find(row.named) != std::wstring::npos)
            << ::testing::PrintToString(row.args) << " " << ::testing::PrintToString(r.error);
    }
}

std::wstring said(const Failure& f) { return std::to_wstring(f.exitCode) + L" " + f.text; }

TEST(Format, NumbersNamesStatesAndMessages)
{
    namespace st = qvdlm::state;
    const std::pair<std::wstring, std::wstring> table[] = {
        {formatBytes(1048575), L"1.00 MiB"}, {formatDuration(3723), L"1:02:03"}, {formatSpeed(2181038), L"2.08 MiB/s"},
        {formatDuration(etaSeconds(195000000, 2181038)), L"1:30"}, {formatDuration(etaSeconds(5, 0)), L"--:--"},
        {formatPercent(percentTenths(1, 0)), L""}, {formatPercent(percentTenths(1ull << 62, 1ull << 63)), L"50.0%"},
        {formatPercent(percentTenths(18446744073709551614u, 18446744073709551615u)), L"99.9%"}, // without overflow
        {nameFromUrlPath(L"/p/pkg_001_004.tar.lzma2"), L"pkg"}, {nameFromUrlPath(L"/X/PKG_002_004.SFX.EXE"), L"PKG"},
        {nameFromUrlPath(L"/a/b_0x1_004.tar.lzma2"), L"b_0x1_004"}, {nameFromUrlPath(L"/.tar.lzma2"), L".tar.lzma2"},
        {stateWord(st::Play, 0, false), L"downloading"}, {stateWord(st::Play, 0, true), L"unpacking"},
        {stateWord(st::Paused, qvdlm::status::NetworkReconnecting, false), L"waiting for network"},
        {stateWord(st::Paused, 0, false), L"paused"}, {stateWord(st::Completed, 0, false), L"completed"},
        {stateWord(st::Aborted, qvdlm::status::OpenFailure, false), L"failed"}, {stateWord(st::Pending, 0, false), L"queued"},
        {said(failureFromValidationLine(L"validateUrl: HTTP status: 404\thttp://localhost/a.bin ")), L"6 http://localhost/a.bin: 404 Not Found"},
        {said(failureFromValidationLine(L"validateUrl: validateUrlDomain failed for URL: http://10.0.0.1:8/a")),
         L"5 http://10.0.0.1:8/a: host 10.0.0.1 is not trusted (trusted hosts: localhost, quorvel.com and its subdomains)"},
        {said(failureFromValidationLine(L"validateUrl: HTTP stream not connected. URL: http://localhost:1/a. status: 12029")),
         L"4 http://localhost:1/a: cannot connect to localhost:1 (connection refused)"},
        {said(failureFromValidationLine(L"validateUrl: HTTP stream not connected. URL: http://nohost/a. status: 12007")),
         L"4 http://nohost/a: cannot resolve host nohost"},
        {said(failureFromValidationLine(L"validateUrl: Content length is 0\thttp://localhost/e.bin ")), L"6 http://localhost/e.bin: the server reports an empty file"},
        {said(failureFromValidationLine(L"validateUrl: Content length is 7\thttp://localhost/f.bin ")), L"0 "},
        {said(failureToPrepare(111, std::wstring(250, L'd'), L"")), L"7 destination path too long: " + std::wstring(250, L'd') + L" (250 characters; at most 246)"},
        {said(failureToPrepare(5, L"C:\\ro", L"Access denied")), L"7 destination not writable: C:\\ro (Access denied)"},
        {said(failureOfDownload(0, qvdlm::tarerror::Truncated, 0, L"C:\\d")), L"8 the package is damaged: it ends inside a file"},
        {said(failureOfDownload(0, qvdlm::tarerror::FileOpen, 0, L"C:\\d")), L"7 cannot write the unpacked files in C:\\d"},
        {said(failureOfDownload(qvdlm::status::OutOfDiskSpace, 0, 0, L"C:\\d")), L"7 not enough disk space in C:\\d"},
        {said(failureOfDownload(qvdlm::status::NetworkError, 0, 0, L"C:\\d")), L"4 connection lost (network error)"},
    };
    for (const auto& [got, want] : table)
        EXPECT_EQ(got, want);
}

TEST(Format, SpeedOverTheLastSecondsFromTheFirstSecond)
{
    SpeedMeter meter; // 2 MiB/s for 10 s, then 512 KiB/s, read every 250 ms
    std::vector<int64_t> seen;
    for (uint64_t ms = 0, bytes = 0; ms <= 15000; ms += 250, bytes += ms <= 10000 ? 524288 : 131072) {
        meter.add(ms, bytes);
        seen.push_back(meter.bytesPerSecond());
    }
    EXPECT_EQ(std::vector<int64_t>({seen[3], seen[4], seen[40], seen[60]}), std::vector<int64_t>({-1, 2097152, 2097152, 524288}));
    EXPECT_GT(seen[44], 1048576) << "a slowdown shows gradually";
    meter.add(15250, 0); // the counter went back (a resume rewound to its checkpoint)
    EXPECT_EQ(meter.bytesPerSecond(), -1);
}

TEST(Format, ProgressLineKeepsTheNameWhenNarrow)
{
    ProgressSnapshot s{L"plain.bin", L"downloading", 50331648, 199992000, false, 2181038};
    EXPECT_EQ(progressLine(s, 0), L"plain.bin  downloading  25.1%  48.0 MiB of 190.7 MiB  2.08 MiB/s  ETA 1:09");
    EXPECT_EQ(progressLine(s, 59), L"plain.bin  25.1%  48.0 MiB  2.08 MiB/s  ETA 1:09");
    s.label = L"Some-Very-Long-Package-Name-For-Testing.bin";
    EXPECT_EQ(progressLine(s, 59), L"Some-Very...ting.bin  25.1%  48.0 MiB  2.08 MiB/s  ETA 1:09");
    s = {L"plain.bin", L"waiting for network", 50331648, 199992000, false, -1};
    EXPECT_EQ(progressLine(s, 40), L"plain.bin  waiting for network  25.1%");
    s = {L"pkg", L"unpacking", 3145728, 4194304, false, 1048576};
    EXPECT_EQ(progressLine(s, 0), L"pkg  unpacking  75.0%  3.00 MiB of 4.00 MiB  1.00 MiB/s  ETA 0:01");
    s.totalEstimated = true; // a size guessed from the first block: no time left
    EXPECT_EQ(progressLine(s, 0), L"pkg  unpacking  ~75.0%  3.00 MiB of 4.00 MiB  1.00 MiB/s");
}

// Runs qvdlm with args in this process; answers its exit status and what it wrote to both outputs.
std::pair<int, std::wstring> runQvdlm(const Args& args, const std::wstring& outFile)
{
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE), err = GetStdHandle(STD_ERROR_HANDLE);
    const HANDLE file = CreateFileW(outFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
    SetStdHandle(STD_OUTPUT_HANDLE, file);
    SetStdHandle(STD_ERROR_HANDLE, file);
    int status = -1;
    {
        Console console;
        status = runCommandLine(args, console);
    }
    SetStdHandle(STD_OUTPUT_HANDLE, out);
    SetStdHandle(STD_ERROR_HANDLE, err);
    CloseHandle(file);
    std::string bytes;
    qvtest::readFile(outFile, bytes);
    return {status, qvtest::widen(bytes)};
}

TEST(Commands, ExitStatusAndOutput)
{
    const qvtest::ScratchDir dir(L"qvdlm-cli");
    const std::wstring store = dir / L"download.info", dest = dir / L"dest", work = dest + L"\\QV_1";
    CreateDirectoryW(dest.c_str(), nullptr);
    CreateDirectoryW(work.c_str(), nullptr);
    ASSERT_TRUE(qvtest::writeFile(work + L"\\part", "partial"));
    DownloadRequestLog* log = DownloadRequestLog::getInstance();
    ASSERT_TRUE(log->open(store.c_str()));
    for (const wchar_t* url : {L"http://localhost:1/a/pkg.tar.lzma2", L"http://localhost:1/b.bin", L"http://localhost:1/done.bin",
                               L"http://localhost:1/old.bin"}) {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(url, nullptr, nullptr);
        r->setName(L"stored");
        r->setDestDir(std::wcsstr(url, L"pkg") ? work.c_str() : (dest + L"\\QV_2").c_str());
        r->setCompressedSize(1048576);
        r->setTotalDownloadedSize(std::wcsstr(url, L"b.bin") ? 262144 : 0);
        r->setState(std::wcsstr(url, L"b.bin") || std::wcsstr(url, L"pkg") ? qvdlm::state::Paused : qvdlm::state::Completed);
        EXPECT_TRUE(log->add(r));
        QvDLM::destroy(r);
    }
    const struct { Args args; int status; std::vector<std::wstring> has; } table[] = {
        {{L"help"}, 0, {L"qvdlm resume", L"  6 the server answered with an error"}},
        {{L"--version"}, 0, {L"qvdlm 1."}},
        {{L"get", L"http://localhost/x", L"--max-active", L"999"}, 2, {L"--max-active", L"\"qvdlm help\""}},
        {{L"get", L"http://127.0.0.1:1/hello.txt", L"--dest", dest, L"--store", store}, 5,
         {L"http://127.0.0.1:1/hello.txt: host 127.0.0.1 is not trusted (trusted hosts: localhost"}},
        {{L"get", L"http://localhost:1/b.bin", L"--store", store}, 1,
         {L"already stored, stopped at 25.0% (256.0 KiB of 1.00 MiB) in " + dest, L"qvdlm remove http://localhost:1/b.bin"}},
        {{L"list", L"--store", store}, 0, {L"stored; completed, 1.00 MiB\n    files in " + dest + L"\\done.bin", L"stored; stopped at 25.0%"}},
        {{L"get", L"http://localhost:1/old.bin", L"--dest", dest, L"--store", store}, 4,
         {L"old.bin: replaces its earlier completed download", L"cannot connect to localhost:1 ("}},
        {{L"remove", L"http://localhost:1/d", L"--store", store}, 0, {L"removed http://localhost:1/done.bin; its files stay"}},
        {{L"remove", L"http://localhost:1/", L"--store", store}, 1, {L"names more than one stored download"}},
        {{L"remove", L"http://localhost:1/nothing", L"--store", store}, 1, {L"no stored download has the ID"}},
        {{L"remove", L"http://localhost:1/b", L"--store", store}, 0, {L"removed http://localhost:1/b.bin; partial files deleted"}},
        {{L"remove", L"http://localhost:1/a", L"--store", store}, 0, {L"partial files deleted"}},
        {{L"resume", L"--store", store}, 0, {L"nothing to resume"}}, // the completed download is left alone
        {{L"token", L"http://localhost/p.tar.lzma2", L"--key", L"736563726574", L"--start", L"1000", L"--lifetime",
          L"60"}, 0, {L"http://localhost/p.tar.lzma2?1060_9138dfcb749db8338bdc90e225e8354a\n"}},
        {{L"token", L"http://localhost/a?b=1", L"--key", L"6b", L"--param", L"abcd"}, 1, {L"code -101"}},
        {{L"token", L"http://localhost/a", L"--key", L"6b0"}, 2, {L"even number"}},
        {{L"token", L"http://localhost/a", L"--key", L"6b00"}, 2, {L"zero byte"}},
    };
    for (const auto& row : table) {
        const auto [status, out] = runQvdlm(row.args, dir / L"out.txt");
        SCOPED_TRACE(::testing::PrintToString(row.args) + "\n" + qvtest::narrow(out));
        EXPECT_EQ(status, row.status);
        for (const std::wstring& text : row.has)
            EXPECT_NE(out.find(text), std::wstring::npos) << qvtest::narrow(text);
    }
    EXPECT_FALSE(qvtest::fileExists(work)) << "remove left the working folder behind";
}
