// From a WinHTTP proxy list ("http=a:80;https=b:443", "a:8080;b") to the ordered (server, port)
// candidates for the request URL's scheme.
#include <regex>

#include "proxy/ProxyLogger.h"
#include "proxy/ProxyManagerImplWin.h"
#include "proxy/ProxyText.h"

namespace QRVL::ProxyManager {

namespace {

constexpr auto kSyntax = std::regex_constants::ECMAScript | std::regex_constants::icase;

// The patterns are "<scheme part>(.*)". std::regex recurses once per character on ".*", which a long
// URL or list turns into a stack overflow, so only the scheme part goes to the engine and the "(.*)"
// group, which takes everything up to the next line terminator, is taken by hand.
const std::wregex& UrlSchemePattern()
{
    static const std::wregex pattern(L"(http|https|ftp|socks)(://)", kSyntax);
    return pattern;
}

// A scheme tag in a proxy list; the separator is deliberately any one of "=", "|", ":" and "/".
const std::wregex& ListTagPattern()
{
    static const std::wregex pattern(L"(http|https|ftp|socks)([=|://])", kSyntax);
    return pattern;
}

bool IsLineTerminator(wchar_t c) { return c == L'\n' || c == L'\r' || c == 0x2028 || c == 0x2029; }

size_t LineEnd(const std::wstring& text, size_t from)
{
    while (from < text.size() && !IsLineTerminator(text[from]))
        ++from;
    return from;
}

struct TagMatch {
    size_t begin = 0;    // where the scheme word starts
    size_t tagEnd = 0;   // first character after the separator
    size_t restEnd = 0;  // end of the "(.*)" group
    std::wstring scheme; // first group
};

// Leftmost "<scheme part>(.*)" at or after `from`; with `anchored` only at `from`.
bool FindTag(const std::wstring& text, size_t from, const std::wregex& pattern, bool anchored, TagMatch& found)
{
    if (from > text.size())
        return false;
    auto flags = std::regex_constants::match_default;
    if (anchored)
        flags |= std::regex_constants::match_continuous;
    if (from > 0)
        flags |= std::regex_constants::match_prev_avail;
    std::wsmatch match;
    if (!std::regex_search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), match, pattern, flags))
        return false;
    found.begin = static_cast<size_t>(match[0].first - text.begin());
    found.tagEnd = static_cast<size_t>(match[0].second - text.begin());
    found.restEnd = LineEnd(text, found.tagEnd);
    found.scheme = match[1].str();
    return true;
}

// The whole text matches "<scheme part>(.*)".
bool MatchesWhole(const std::wstring& text, const std::wregex& pattern, TagMatch& found)
{
    return FindTag(text, 0, pattern, true, found) && found.restEnd == text.size();
}

// Every "<tag>(.*)" removed.
std::wstring RemoveTags(const std::wstring& text, const std::wregex& pattern)
{
    std::wstring kept;
    size_t position = 0;
    TagMatch found;
    while (FindTag(text, position, pattern, false, found)) {
        kept.append(text, position, found.begin - position);
        position = found.restEnd;
    }
    kept.append(text, position, std::wstring::npos);
    return kept;
}

} // namespace

bool ProxyManagerImplWin::FetchServerInfo(std::wstring& proxyList, std::vector<ProxyCandidate>& candidates)
{
    Log(LOG_DEBUG, "Performing 'FetchServerInfo' ...");
    candidates.clear();
    if (proxyList.empty()) {
        Log(LOG_ERROR, "Proxy server info is empty!");
        return false;
    }
    std::wstring serverType;
    std::string defaultPort;
    if (!GetServerTypeStrAndDefaultPort(Widen(requestUrl_), serverType, defaultPort) ||
        !ExtractServerData(serverType, proxyList) || !ParseServerAndPortInfo(defaultPort, proxyList, candidates)) {
        proxyList.clear();
        candidates.clear();
        return false;
    }
    return true;
}

bool ProxyManagerImplWin::GetServerTypeStrAndDefaultPort(const std::wstring& url, std::wstring& serverType,
                                                         std::string& defaultPort)
{
    Log(LOG_DEBUG, "Performing 'GetServerTypeStrAndDefaultPort' ...");
    serverType = L"https";
    defaultPort = "443";
    TagMatch match;
    if (MatchesWhole(url, UrlSchemePattern(), match)) {
        const std::wstring& scheme = match.scheme;
        if (EqualsNoCase(scheme, L"http")) {
            serverType = L"http";
            defaultPort = "80";
        } else if (EqualsNoCase(scheme, L"ftp")) {
            serverType = L"ftp";
            defaultPort = "21";
        } else if (EqualsNoCase(scheme, L"socks")) {
            serverType = L"socks";
            defaultPort = "1080";
        }
    }
    return true;
}

bool ProxyManagerImplWin::ExtractServerData(const std::wstring& serverType, std::wstring& proxyList)
{
    Log(LOG_DEBUG, "Performing 'ExtractServerData' ...");
    Log(LOG_DEBUG, "Proxy server information is: %s", Narrow(proxyList).c_str());
    const std::wregex& tag = ListTagPattern();
    TagMatch match;
    // A plain list of hosts is used as it stands.
    if (!MatchesWhole(proxyList, tag, match))
        return true;

    // Each round drops at least the tag it found, so the list shrinks to nothing at worst.
    for (;;) {
        if (!FindTag(proxyList, 0, tag, false, match)) {
            if (proxyList.empty())
                Log(LOG_ERROR, "Failed to detect correct proxy server info of format like 'https://' or 'https='");
            return false;
        }
        proxyList = proxyList.substr(match.tagEnd, match.restEnd - match.tagEnd);
        if (EqualsNoCase(match.scheme, serverType)) {
            // The next tagged entry and everything after it belong to other schemes.
            proxyList = RemoveTags(proxyList, tag);
            return true;
        }
    }
}

bool ProxyManagerImplWin::ParseServerAndPortInfo(const std::string& defaultPort, const std::wstring& proxyList,
                                                 std::vector<ProxyCandidate>& candidates)
{
    Log(LOG_DEBUG, "Performing 'ParseServerAndPortInfo' ...");
    std::vector<std::wstring> entries;
    if (!SplitDelimited(proxyList, L';', entries)) {
        Log(LOG_ERROR, "Failed while splitting proxy server collection: '%s' into vector of proxy server",
            Narrow(proxyList).c_str());
        return false;
    }
    const std::wstring widePort = Widen(defaultPort);
    for (const std::wstring& entry : entries) {
        std::vector<std::wstring> pieces;
        if (!SplitDelimited(entry, L':', pieces)) {
            Log(LOG_DEBUG, "Failed while splitting proxy: '%s' into proxy server and port", Narrow(entry).c_str());
            continue;
        }
        std::wstring server;
        std::wstring port;
        if (pieces.size() == 1) {
            server = entry;
            port = widePort;
        } else if (pieces.size() == 2) {
            server = pieces[0];
            port = pieces[1];
        } else if (pieces.size() >= 3) {
            // An IPv6 literal: a port follows only when the closing bracket comes before the last colon.
            const size_t bracket = entry.rfind(L']');
            const size_t colon = entry.rfind(L':');
            if (bracket != std::wstring::npos && bracket < colon) {
                server = entry.substr(0, colon);
                port = pieces.back();
            } else {
                server = entry;
                port = widePort;
            }
        } else {
            Log(LOG_DEBUG, "Unable to correctly parse proxy server and port information contained in '%s'",
                Narrow(entry).c_str());
            continue;
        }
        candidates.push_back(ProxyCandidate{Narrow(server), Narrow(port)});
    }
    return true;
}

} // namespace QRVL::ProxyManager
