// The tar header scanner: finds whole ustar/GNU header blocks at any offset and nothing else.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "stream/TarHeaderScanner.h"
#include "stream/TarTestBlocks.h"
#include "support/TestSupport.h"

namespace {

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

TEST(TarHeaderBlock, AcceptsAHeaderWithItsChecksum)
{
    const std::string header = qvtest::tarHeader("payload.tar.lzma2", 123456);
    EXPECT_TRUE(qv::isTarHeaderBlock(bytes(header)));
}

TEST(TarHeaderBlock, AcceptsGnuMagicToo)
{
    std::string header = qvtest::tarHeader("a", 1);
    // "ustar  \0" (GNU) instead of "ustar\0" "00": same byte sum change must be reflected in the checksum.
    header.replace(257, 8, std::string("ustar  \0", 8));
    header.replace(148, 8, "        ");
    unsigned sum = 0;
    for (unsigned char c : header)
        sum += c;
    char field[8];
    std::snprintf(field, sizeof field, "%06o", sum);
    header.replace(148, 7, std::string(field, 7));
    EXPECT_TRUE(qv::isTarHeaderBlock(bytes(header)));
}

TEST(TarHeaderBlock, RefusesAWrongChecksum)
{
    std::string header = qvtest::tarHeader("a", 1);
    header[0] = 'b';
    EXPECT_FALSE(qv::isTarHeaderBlock(bytes(header)));
}

TEST(TarHeaderBlock, RefusesAMissingMagic)
{
    std::string header = qvtest::tarHeader("a", 1);
    header[257] = 'x';
    EXPECT_FALSE(qv::isTarHeaderBlock(bytes(header)));
}

TEST(TarHeaderBlock, RefusesAnAllZeroBlock)
{
    const std::string zeros(512, '\0');
    EXPECT_FALSE(qv::isTarHeaderBlock(bytes(zeros)));
}

TEST(TarHeaderBlock, ChecksumCountsItsOwnFieldAsBlanks)
{
    const std::string zeros(512, '\0');
    EXPECT_EQ(qv::tarHeaderChecksum(bytes(zeros)), 8u * ' ');
}

TEST(FindTarHeader, FindsAHeaderAtAnyOffset)
{
    for (size_t offset : {size_t{0}, size_t{1}, size_t{37}, size_t{4095}, size_t{10000}}) {
        const std::string data = qvtest::patternBytes(offset, 7) + qvtest::tarHeader("p", 99) + qvtest::patternBytes(100, 8);
        qv::TarHeaderMatch match;
        ASSERT_TRUE(qv::findTarHeader(bytes(data), data.size(), &match)) << offset;
        EXPECT_EQ(match.headerOffset, offset);
        EXPECT_EQ(match.dataOffset, 512u);
        EXPECT_EQ(match.entrySize, 99u);
    }
}

TEST(FindTarHeader, FindsAHeaderThatEndsTheBuffer)
{
    const std::string data = qvtest::patternBytes(300, 9) + qvtest::tarHeader("p", 5);
    qv::TarHeaderMatch match;
    ASSERT_TRUE(qv::findTarHeader(bytes(data), data.size(), &match));
    EXPECT_EQ(match.headerOffset, 300u);
}

TEST(FindTarHeader, IgnoresAHeaderCutByTheBufferEnd)
{
    const std::string data = qvtest::patternBytes(300, 9) + qvtest::tarHeader("p", 5);
    EXPECT_FALSE(qv::findTarHeader(bytes(data), data.size() - 1, nullptr));
}

TEST(FindTarHeader, TakesTheFirstOfTwoHeaders)
{
    const std::string data = qvtest::patternBytes(64, 1) + qvtest::tarHeader("first", 1) + qvtest::tarHeader("second", 2);
    qv::TarHeaderMatch match;
    ASSERT_TRUE(qv::findTarHeader(bytes(data), data.size(), &match));
    EXPECT_EQ(match.headerOffset, 64u);
    EXPECT_EQ(match.entrySize, 1u);
}

TEST(FindTarHeader, SkipsAMagicWithoutAValidBlock)
{
    // A stray "ustar" in the stub before the real header must not stop the search.
    std::string stub = qvtest::patternBytes(2000, 4);
    stub.replace(700, 5, "ustar");
    const std::string data = stub + qvtest::tarHeader("p", 3);
    qv::TarHeaderMatch match;
    ASSERT_TRUE(qv::findTarHeader(bytes(data), data.size(), &match));
    EXPECT_EQ(match.headerOffset, 2000u);
}

TEST(FindTarHeader, FindsNothingInPlainBytes)
{
    const std::string data = qvtest::patternBytes(1 << 20, 11);
    EXPECT_FALSE(qv::findTarHeader(bytes(data), data.size(), nullptr));
}

TEST(FindTarHeader, HandlesShortAndNullInput)
{
    const std::string data(511, 'u');
    EXPECT_FALSE(qv::findTarHeader(bytes(data), data.size(), nullptr));
    EXPECT_FALSE(qv::findTarHeader(nullptr, 4096, nullptr));
    EXPECT_FALSE(qv::findTarHeader(bytes(data), 0, nullptr));
}

} // namespace
