// Header fields and entry paths of the tar sink, without touching the disk.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "TarTestSupport.h"
#include "stream/TarEntryPath.h"
#include "stream/TarHeaderBlock.h"

using namespace qv::tar;

namespace {

const uint8_t* bytesOf(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

int64_t number(const std::string& field)
{
    std::string f = field;
    f.resize(12, '\0');
    return headerNumber(bytesOf(f));
}

std::string block(tartest::Header h = {}) { return tartest::headerBlock(h); }

} // namespace

TEST(TarHeaderNumber, ReadsElevenOctalDigits)
{
    EXPECT_EQ(number("00000001750"), 01750);
    EXPECT_EQ(number("77777777777"), 077777777777);
    // Only the first 11 characters count, whatever follows.
    EXPECT_EQ(number(std::string("000000000017", 12)), 01);
}

TEST(TarHeaderNumber, TakesEightAndNineAtFaceValueAndOtherCharactersAsZero)
{
    EXPECT_EQ(number("00000000019"), 1 * 8 + 9);
    EXPECT_EQ(number("00000000080"), 8 * 8);
    // Leading spaces are zeros; a trailing space or NUL still shifts the digits before it.
    EXPECT_EQ(number("        17 "), 017 * 8);
    EXPECT_EQ(number(std::string("000000017\0\0", 11)), 017 * 64);
    EXPECT_EQ(number("0000000001x"), 8);
}

TEST(TarHeaderNumber, ReadsGnuBinaryNumbersAndRefusesWhatDoesNotFit)
{
    std::string f(12, '\0');
    f[0] = static_cast<char>(0x80);
    f[8] = 0x02; // 2 << 24
    f[11] = 0x05;
    EXPECT_EQ(number(f), (int64_t{2} << 24) + 5);

    std::string big(12, '\0');
    big[0] = static_cast<char>(0x80);
    big[3] = 0x01; // beyond 63 bits
    EXPECT_EQ(number(big), -1);

    std::string negative(12, static_cast<char>(0xFF));
    EXPECT_EQ(number(negative), -1);
}

TEST(TarHeaderMode, UsesBaseEightConversion)
{
    tartest::Header h;
    h.mode = 0444;
    EXPECT_EQ(headerMode(bytesOf(block(h))), 0444u);
    std::string b = block();
    std::memcpy(&b[100], "755\0\0\0\0\0", 8);
    EXPECT_EQ(headerMode(bytesOf(b)), 0755u);
    std::memcpy(&b[100], " 644 \0\0\0", 8);
    EXPECT_EQ(headerMode(bytesOf(b)), 0644u);
    std::memcpy(&b[100], "\0\0\0\0\0\0\0\0", 8);
    EXPECT_EQ(headerMode(bytesOf(b)), 0u);
}

TEST(TarHeaderChecksum, AcceptsMatchingOrEmptyAndRefusesWrong)
{
    tartest::Header h;
    h.name = "file.txt";
    std::string good = block(h);
    EXPECT_TRUE(checksumAcceptable(bytesOf(good)));

    std::string changed = good;
    changed[0] = 'g';
    EXPECT_FALSE(checksumAcceptable(bytesOf(changed)));

    h.checksum = false;
    EXPECT_TRUE(checksumAcceptable(bytesOf(block(h))));

    std::string junk = good;
    std::memcpy(&junk[148], "12x4567 ", 8);
    EXPECT_FALSE(checksumAcceptable(bytesOf(junk)));
}

TEST(TarHeaderChecksum, AcceptsTheSignedSumOfOldWriters)
{
    tartest::Header h;
    h.name = "caf\xc3\xa9"; // bytes above 127 make the two sums differ
    h.checksum = false;
    std::string b = block(h);
    std::memcpy(&b[148], "        ", 8);
    int32_t sum = 0;
    for (char c : b)
        sum += static_cast<signed char>(c);
    char text[9];
    std::snprintf(text, sizeof text, "%06o", static_cast<unsigned>(sum));
    std::memcpy(&b[148], text, 6);
    b[154] = '\0';
    EXPECT_TRUE(checksumAcceptable(bytesOf(b)));
}

TEST(TarHeaderFields, RecognisesZeroBlocksMagicAndLongLinkMarker)
{
    const std::string zero(512, '\0');
    EXPECT_TRUE(isZeroBlock(bytesOf(zero)));
    std::string almost = zero;
    almost[511] = 1;
    EXPECT_FALSE(isZeroBlock(bytesOf(almost)));

    tartest::Header h;
    EXPECT_FALSE(isPosixUstar(bytesOf(block(h))));
    h.posixMagic = true;
    EXPECT_TRUE(isPosixUstar(bytesOf(block(h))));

    h.name = "././@LongLink";
    EXPECT_TRUE(hasLongLinkMarker(bytesOf(block(h))));
    h.name = "././@LongLin";
    EXPECT_FALSE(hasLongLinkMarker(bytesOf(block(h))));

    EXPECT_EQ(fieldLength(bytesOf(std::string("abc\0def", 7)), 7), 3u);
    EXPECT_EQ(fieldLength(bytesOf(std::string(100, 'n')), 100), 100u);
}

struct PathCase {
    const wchar_t* name;
    const wchar_t* expected; // null: refused
};

class TarEntryPathCases : public testing::TestWithParam<PathCase> {};

TEST_P(TarEntryPathCases, CleansOrRefuses)
{
    const PathCase& c = GetParam();
    std::wstring out = L"left over";
    const bool ok = relativeEntryPath(c.name, out);
    if (c.expected) {
        EXPECT_TRUE(ok);
        EXPECT_EQ(out, c.expected);
    } else {
        EXPECT_FALSE(ok) << "accepted as " << std::string(out.begin(), out.end());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, TarEntryPathCases,
    testing::Values(PathCase{L"a/b/c.txt", L"a\\b\\c.txt"}, PathCase{L"./a/./b/", L"a\\b"},
                    PathCase{L"a//b", L"a\\b"}, PathCase{L"a\\b", L"a\\b"}, PathCase{L"a/../b", L"b"},
                    PathCase{L"./", L""}, PathCase{L".", L""}, PathCase{L"a/..", L""},
                    PathCase{L"name.", L"name."}, PathCase{L"..a/b..", L"..a\\b.."},
                    PathCase{L"", nullptr}, PathCase{L"..", nullptr}, PathCase{L"../x", nullptr},
                    PathCase{L"a/../../x", nullptr}, PathCase{L"a\\..\\..\\x", nullptr},
                    PathCase{L"/etc/passwd", nullptr}, PathCase{L"\\x", nullptr},
                    PathCase{L"\\\\server\\share\\x", nullptr}, PathCase{L"C:/x", nullptr},
                    PathCase{L"C:x", nullptr}, PathCase{L"a/b:stream", nullptr}, PathCase{L"a/.../b", nullptr},
                    PathCase{L"a/. ./b", nullptr}, PathCase{L"a/  /b", nullptr}));

TEST(TarLinkTarget, IsTakenRelativeToTheLinksFolder)
{
    std::wstring out;
    EXPECT_TRUE(relativeLinkTarget(L"a\\b\\link", L"../c/file", out));
    EXPECT_EQ(out, L"a\\c\\file");
    EXPECT_TRUE(relativeLinkTarget(L"link", L"target", out));
    EXPECT_EQ(out, L"target");
    EXPECT_TRUE(relativeLinkTarget(L"a\\link", L"..", out));
    EXPECT_EQ(out, L"");
    EXPECT_FALSE(relativeLinkTarget(L"link", L"..", out));
    EXPECT_FALSE(relativeLinkTarget(L"a\\link", L"../../x", out));
    EXPECT_FALSE(relativeLinkTarget(L"link", L"/etc", out));
    EXPECT_FALSE(relativeLinkTarget(L"link", L"C:\\Windows", out));
    EXPECT_FALSE(relativeLinkTarget(L"link", L"", out));
}

TEST(TarInsideFolder, ComparesAtASeparatorBoundaryWithoutCase)
{
    EXPECT_TRUE(isInsideFolder(L"C:\\dest", L"C:\\dest\\x", false));
    EXPECT_TRUE(isInsideFolder(L"C:\\dest", L"c:\\DEST\\x\\y", false));
    EXPECT_FALSE(isInsideFolder(L"C:\\dest", L"C:\\dest2\\x", false));
    EXPECT_FALSE(isInsideFolder(L"C:\\dest", L"C:\\des", false));
    EXPECT_FALSE(isInsideFolder(L"C:\\dest", L"C:\\other\\x", false));
    EXPECT_FALSE(isInsideFolder(L"C:\\dest", L"C:\\dest", false));
    EXPECT_TRUE(isInsideFolder(L"C:\\dest", L"C:\\dest\\", true));
    EXPECT_TRUE(isInsideFolder(L"C:\\dest\\", L"C:\\dest\\x", false));
    EXPECT_TRUE(isInsideFolder(L"C:\\", L"C:\\x", false));
    EXPECT_FALSE(isInsideFolder(L"", L"C:\\x", false));
}
