// Random and malformed URLs and block lists handed to requests, the manager and validateUrl through
// the public interface: over-long text, missing or odd schemes, control characters and embedded NULs,
// huge ports, broken "%"-escapes, block lists with bad separators. Every answer must be one of the
// validation codes, nothing may crash, and nothing is ever fetched: the only hosts are loopback ports
// where nothing listens and names under ".invalid".
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cwctype>
#include <string>

#include "FuzzMutate.h"
#include "QvDLM.h"
#include "support/TestSupport.h"

namespace validation = qvdlm::validation;

namespace {

// The trusted-host rule as clients are told it: the host part (up to and including the first "/"
// after "://", searched from the third character when there is none) names localhost.
bool trustedHost(std::wstring url)
{
    for (wchar_t& c : url)
        c = static_cast<wchar_t>(std::towlower(c));
    if (url.size() < 2 && url.find(L"://") == std::wstring::npos)
        return false;
    url = url.substr(url.find(L"://") + 3);
    url = url.substr(0, url.find(L'/') + 1);
    for (const wchar_t* p : {L"localhost/", L"localhost:"})
        if (url.find(p) != std::wstring::npos)
            return true;
    return false;
}

std::wstring closedPort(fuzz::Rng& rng) { return std::to_wstring(qvtest::port(rng.chance(50) ? 18 : 19)); }

std::wstring oneUrl(fuzz::Rng& rng)
{
    static const wchar_t* const schemes[] = {L"http://", L"https://", L"HTTP://", L"hTTpS://", L"ftp://",
                                             L"file://",  L"gopher://", L"",       L"http:/",   L"http:",
                                             L"://",      L"http//",   L"\\\\",    L"javascript:"};
    static const wchar_t* const hosts[] = {L"localhost", L"LOCALHOST", L"127.0.0.1", L"qvfuzz.invalid",
                                           L"localhost.invalid", L"[::1]", L"", L"user:pw@localhost",
                                           L"localhost@qvfuzz.invalid", L"qvfuzz.invalid?localhost"};
    // Most URLs pass the host test, so that the manager and the probe see them too.
    const bool wellFormed = rng.chance(60);
    std::wstring url = wellFormed ? (rng.chance(70) ? L"http://" : L"https://") : rng.pick(schemes);
    url += wellFormed ? (rng.chance(80) ? L"localhost" : L"LocalHost") : rng.pick(hosts);
    switch (wellFormed ? 7 : rng.below(8)) {
    case 0: break;
    case 1: url += L":0"; break;
    case 2: url += L":65536"; break;
    case 3: url += L":99999999999999999999"; break;
    case 4: url += L":-1"; break;
    case 5: url += L":abc"; break;
    default: url += L":" + closedPort(rng); break;
    }
    static const wchar_t* const paths[] = {
        L"/",     L"/pkg_001_002.tar.lzma2", L"/setup.sfx.exe", L"/%00", L"/%zz%", L"/%",
        L"/x?authparam=%s&SESSION_ID=%n", L"/pkg_000_000.bin", L"/pkg_999_001.bin",
        L"/pkg_001_99999999999.tar.lzma2", L"/a b/c", L"", L"/..\\..\\qvfuzz", L"/p?q=1;r=2,s",
        L"/%%%%%%%%s%s%s%n", L"/pkg_002_001.bin?authparam=&authparam="};
    url += rng.pick(paths);
    return url;
}

// Noise inserted behind the host's first "/" only, so that it can never name another host.
void addNoise(fuzz::Rng& rng, std::wstring& url)
{
    const size_t slash = url.find(L'/', url.find(L"://") == std::wstring::npos ? 0 : url.find(L"://") + 3);
    if (slash == std::wstring::npos)
        return;
    const size_t at = slash + 1 + static_cast<size_t>(rng.below(url.size() - slash));
    std::wstring noise;
    switch (rng.below(5)) {
    case 0: // control characters and an embedded NUL (the interface sees text up to it)
        for (uint64_t i = 0, n = 1 + rng.below(8); i < n; ++i)
            noise += static_cast<wchar_t>(rng.chance(20) ? 0 : 1 + rng.below(31));
        break;
    case 1: // far beyond any buffer
        noise.assign(static_cast<size_t>(rng.chance(10) ? 1000000 : 300 + rng.below(70000)), L"a%/;,?&"[rng.below(7)]);
        break;
    case 2: // outside ASCII, including lone surrogates and non-characters
        for (uint64_t i = 0, n = 1 + rng.below(8); i < n; ++i) {
            static const wchar_t odd[] = {0xD800, 0xDFFF, 0xFFFF, 0xFEFF, 0x00E9, 0x202E, 0x7F};
            noise += rng.pick(odd);
        }
        break;
    case 3: // format directives
        noise = L"%s%n%d%ls%I64d";
        break;
    default:
        noise.assign(static_cast<size_t>(1 + rng.below(40)), static_cast<wchar_t>(32 + rng.below(95)));
        break;
    }
    url.insert(std::min(at, url.size()), noise);
}

std::wstring urlList(fuzz::Rng& rng)
{
    static const wchar_t* const separators[] = {L";", L";;", L",", L" ", L"|", L"\r\n", L"; ", L";\t"};
    std::wstring list;
    const unsigned count = 1 + static_cast<unsigned>(rng.below(rng.chance(20) ? 400 : 4));
    for (unsigned i = 0; i < count; ++i) {
        if (i)
            list += rng.pick(separators);
        std::wstring url = oneUrl(rng);
        if (rng.chance(40))
            addNoise(rng, url);
        list += url;
    }
    if (rng.chance(15))
        list += rng.pick(separators); // a trailing separator
    return list;
}

} // namespace

TEST(UrlFuzz, MalformedUrlsGetClearCodesAndStayLocal)
{
    qvtest::ScratchDir root(L"fuzz-url");
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_TRUE(store->open((root / L"store\\download.info").c_str()));
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    ASSERT_NE(nullptr, manager);
    const std::wstring dest = root / L"dest";
    ASSERT_TRUE(CreateDirectoryW(dest.c_str(), nullptr));

    int untrusted = 0;
    int added = 0;
    for (const uint64_t seed : fuzz::seeds("url", 40)) {
        fuzz::Rng rng(seed);
        const std::wstring list = urlList(rng);
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + std::to_string(list.size()) + " characters: " +
                     qvtest::narrow(list.substr(0, 160)));

        DownloadRequest* request = QvDLM::createDownloadRequest();
        ASSERT_NE(nullptr, request);
        request->setUrl(list.c_str(), rng.chance(20) ? L"name%s.bin" : nullptr, rng.chance(20) ? L".tar.lzma2" : nullptr);
        request->setDestDir(dest.c_str());
        EXPECT_GE(request->getBlockCount(), 0);

        const wchar_t* current = request->getUrl(false);
        const std::wstring url = current ? current : L"";
        const unsigned long code = validateUrl(request);
        // Nothing listens anywhere we may reach, so nothing can validate.
        EXPECT_TRUE(code == validation::OpenFailure || code == validation::Forbidden ||
                    code == validation::ServerNotResponding || code == validation::NetworkDisconnected ||
                    code == validation::NetworkError || code == validation::ProxyAuthRequired)
            << code;
        if (!trustedHost(url)) {
            ++untrusted;
            EXPECT_EQ(static_cast<unsigned long>(validation::OpenFailure), code) << "untrusted host passed";
        }

        const unsigned checked = manager->checkRequest(request);
        EXPECT_NE(static_cast<unsigned>(validation::Ok), checked);
        if (rng.chance(50)) {
            // The manager owns the request from here on, whatever it answers.
            Download* download = manager->addDownload(request);
            if (download) {
                ++added;
                EXPECT_EQ(request, download->getRequest());
                EXPECT_EQ(static_cast<unsigned>(validation::AlreadyAdded), manager->checkRequest(request));
                EXPECT_TRUE(manager->removeDownload(download));
                QvDLM::destroy(download);
            }
        } else {
            QvDLM::destroy(request);
        }
    }
    std::printf("[fuzz] url: %d untrusted, %d added and removed\n", untrusted, added);
    EXPECT_GT(untrusted, 0);
    QvDLM::destroy(manager);
    store->open((root / L"..\\fuzz-url-store-unused.info").c_str());
}

TEST(UrlFuzz, ExtremeLengthsAreHandled)
{
    qvtest::ScratchDir root(L"fuzz-url-long");
    DownloadRequestLog* store = DownloadRequestLog::getInstance();
    ASSERT_TRUE(store->open((root / L"store\\download.info").c_str()));
    DownloadMgr* manager = QvDLM::createDownloadMgr();
    ASSERT_NE(nullptr, manager);
    const std::wstring base = L"http://localhost:" + std::to_wstring(qvtest::port(19)) + L"/";
    std::wstring blocks;
    for (int i = 1; i <= 3000; ++i)
        blocks += (i > 1 ? L";" : L"") + base + L"b" + std::to_wstring(i) + L".bin";
    const std::wstring cases[] = {
        base + std::wstring(1000000, L'a') + L".tar.lzma2",
        base + L"p?" + std::wstring(1000000, L'&') + L"authparam=x",
        base + L"pkg_001_" + std::wstring(100000, L'9') + L".tar.lzma2",
        std::wstring(1000000, L';'),
        blocks,
    };
    for (const std::wstring& url : cases) {
        SCOPED_TRACE(qvtest::narrow(url.substr(0, 60)) + "... (" + std::to_string(url.size()) + " characters)");
        DownloadRequest* request = QvDLM::createDownloadRequest();
        ASSERT_NE(nullptr, request);
        request->setUrl(url.c_str(), nullptr, nullptr);
        request->setDestDir((root / L"dest").c_str());
        EXPECT_GE(request->getBlockCount(), 0);
        (void)request->getUrlPath();
        const unsigned long code = validateUrl(request);
        EXPECT_NE(static_cast<unsigned long>(validation::Ok), code);
        if (Download* download = manager->addDownload(request)) {
            EXPECT_TRUE(manager->removeDownload(download));
            QvDLM::destroy(download);
        }
    }
    QvDLM::destroy(manager);
    store->open((root / L"..\\fuzz-url-store-unused.info").c_str());
}
