// qvdlm's pieces that need no server: the command lines it accepts and refuses (qvdlm.exe ends with
// exit status 2 on a refused one, see qvdlm_cli_test.sh) and the numbers and names it prints.
#include <gtest/gtest.h>

#include <tuple>

#include "CommandLine.h"
#include "Format.h"

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
