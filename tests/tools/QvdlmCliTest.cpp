// qvdlm's pieces that need no server: the command lines it accepts and refuses, whole commands run in
// this process with their output and exit status (a scratch store; no server listens on port 1), and
// the numbers and names it prints. qvdlm_cli_test.sh runs qvdlm.exe for what needs real downloads.
#include <gtest/gtest.h>

#include <cwchar>
#include <tuple>

#include "CommandLine.h"
#include "Commands.h"
#include "Format.h"
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
        {{L"get", L"x", L"y", L"--file", L"f"}, L"one URL"}, {{L"get", L"x", L"y", L"--size", L"1M"}, L"one URL"},
        {{L"resume", L"extra"}, L"\"extra\""}, {{L"remove", L"a", L"b"}, L"one ID"}, {{L"token", L"x"}, L"--key"},
        {{L"token", L"x", L"--key", L"61", L"--start", L"soon"}, L"\"soon\""},
    };
    for (const auto& row : table) {
        const ParseResult r = parseCommandLine(row.args);
        EXPECT_TRUE(!r.ok && r.error.find(row.named) != std::wstring::npos)
            << ::testing::PrintToString(row.args) << " " << ::testing::PrintToString(r.error);
    }
}

TEST(Format, NumbersAndNames)
{
    const std::pair<std::wstring, std::wstring> table[] = {
        {formatBytes(1048575), L"1.00 MiB"}, {formatDuration(3723), L"1:02:03"},
        {formatPercent(percentTenths(1, 0)), L""}, {formatPercent(percentTenths(1ull << 62, 1ull << 63)), L"50.0%"},
        {formatPercent(percentTenths(18446744073709551614u, 18446744073709551615u)), L"99.9%"}, // without overflow
        {nameFromUrlPath(L"/p/pkg_001_004.tar.lzma2"), L"pkg"}, {nameFromUrlPath(L"/X/PKG_002_004.SFX.EXE"), L"PKG"},
        {nameFromUrlPath(L"/a/b_0x1_004.tar.lzma2"), L"b_0x1_004"}, {nameFromUrlPath(L"/.tar.lzma2"), L".tar.lzma2"},
    };
    for (const auto& [got, want] : table)
        EXPECT_EQ(got, want);
}

TEST(Format, ProgressLine)
{
    ProgressSnapshot s{L"pkg", 524288, 1048576, false, 8388608, 65, L"download play"};
    EXPECT_EQ(progressLine(s, 0), L"pkg  50.0%  512.0 KiB of 1.00 MiB  1.00 MiB/s  ETA 1:05  download play");
    s.totalEstimated = true; // a size guessed from the first block: no ETA
    EXPECT_EQ(progressLine(s, 0), L"pkg  ~50.0%  512.0 KiB of 1.00 MiB  1.00 MiB/s  download play");
    s.label = std::wstring(200, L'n');
    for (size_t width : {120u, 20u})
        EXPECT_LE(progressLine(s, width).size(), width);
    EXPECT_NE(progressLine(s, 120).find(L"n...  ~50.0%"), std::wstring::npos);
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
    for (const wchar_t* url : {L"http://localhost:1/a/pkg.tar.lzma2", L"http://localhost:1/b.bin", L"http://localhost:1/done.bin"}) {
        DownloadRequest* r = QvDLM::createDownloadRequest();
        r->setUrl(url, nullptr, nullptr);
        r->setName(L"stored");
        r->setDestDir(std::wcsstr(url, L"pkg") ? work.c_str() : dest.c_str());
        r->setState(std::wcsstr(url, L"done") ? qvdlm::state::Completed : qvdlm::state::Paused);
        EXPECT_TRUE(log->add(r));
        QvDLM::destroy(r);
    }
    const struct { Args args; int status; std::vector<std::wstring> has; } table[] = {
        {{L"help"}, 0, {L"qvdlm resume", L"Exit status"}},
        {{L"get", L"http://localhost/x", L"--max-active", L"999"}, 2, {L"--max-active", L"\"qvdlm help\""}},
        {{L"get", L"ftp://localhost/x", L"--store", store}, 1, {L"not an http:// or https:// URL"}},
        {{L"get", L"http://127.0.0.1:1/hello.txt", L"--dest", dest, L"--store", store}, 1,
         {L"validateUrlDomain failed for URL: http://127.0.0.1:1/hello.txt"}},
        {{L"get", L"http://localhost:1/a/pkg.tar.lzma2", L"--store", store}, 1, {L"already stored"}},
        {{L"remove", L"http://localhost:1/", L"--store", store}, 1, {L"names more than one stored download"}},
        {{L"remove", L"http://localhost:1/nothing", L"--store", store}, 1, {L"no stored download has the ID"}},
        {{L"remove", L"http://localhost:1/done", L"--store", store}, 0, {L"removed http://localhost:1/done.bin; its files stay"}},
        {{L"list", L"--store", store}, 0, {L"http://localhost:1/a/pkg.tar.lzma2", L"http://localhost:1/b.bin"}},
        {{L"remove", L"http://localhost:1/a", L"--store", store}, 0, {L"partial files deleted"}},
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
