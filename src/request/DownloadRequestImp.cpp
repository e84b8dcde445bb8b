#include "request/DownloadRequestImp.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <exception>
#include <memory>
#include <new>
#include <regex>

#include "QvDLMFactory.h"
#include "UrlAuth.h"

namespace {

constexpr size_t npos = std::wstring::npos;
constexpr wchar_t kBlockField[] = L"%03d";
constexpr wchar_t kTokenField[] = L"%s";
constexpr wchar_t kLocalServePrefix[] = L"http://127.0.0.1:9421/api?function=serveFile&cid=0&url=";
constexpr wchar_t kLzma2Suffix[] = L".tar.lzma2";
constexpr wchar_t kSfxSuffix[] = L".sfx.exe";

// Appends into a fixed character buffer and cuts what does not fit; the text stays terminated.
class FixedWriter {
public:
    FixedWriter(wchar_t* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) { buffer_[0] = L'\0'; }
    void append(const wchar_t* text, size_t count)
    {
        const size_t room = capacity_ - 1 - length_;
        const size_t n = count < room ? count : room;
        std::wmemcpy(buffer_ + length_, text, n);
        length_ += n;
        buffer_[length_] = L'\0';
    }
    void append(const std::wstring& text) { append(text.data(), text.size()); }
    void append(wchar_t c) { append(&c, 1); }
    const wchar_t* text() const { return buffer_; }
    bool contains(wchar_t c) const { return std::wmemchr(buffer_, c, length_) != nullptr; }

private:
    wchar_t* buffer_;
    size_t capacity_;
    size_t length_ = 0;
};

std::wstring blockNumber(int n)
{
    wchar_t digits[16];
    std::swprintf(digits, 16, L"%03d", n);
    return digits;
}

// The template with its block field replaced by the block number; other text is copied as it is,
// so a "%s" left for the token and any percent-escapes of the URL survive.
std::wstring formatBlock(const std::wstring& tmpl, int n)
{
    std::wstring out = tmpl;
    const size_t at = out.find(kBlockField);
    if (at != npos)
        out.replace(at, std::wcslen(kBlockField), blockNumber(n));
    return out;
}

std::string formatBlockNarrow(const std::string& tmpl, int n)
{
    std::string out = tmpl;
    const size_t at = out.find("%03d");
    if (at != std::string::npos) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%03d", n);
        out.replace(at, 4, digits);
    }
    return out;
}

// Writes the URL with the token in place of its "%s" (the last one: the path may hold one of its own).
void writeWithToken(FixedWriter& out, const std::wstring& url, const std::wstring& token)
{
    const size_t at = url.rfind(kTokenField);
    if (at == npos) {
        out.append(url);
        return;
    }
    out.append(url.data(), at);
    out.append(token);
    const size_t rest = at + std::wcslen(kTokenField);
    out.append(url.data() + rest, url.size() - rest);
}

// Narrow text in the C runtime's current locale; characters it cannot express become '?'.
std::string narrowForLocale(const std::wstring& text)
{
    std::string out;
    out.reserve(text.size());
    std::mbstate_t state{};
    char bytes[MB_LEN_MAX];
    for (wchar_t c : text) {
        const size_t n = std::wcrtomb(bytes, c, &state);
        if (n == static_cast<size_t>(-1)) {
            state = std::mbstate_t{};
            out.push_back('?');
        } else {
            out.append(bytes, n);
        }
    }
    return out;
}

int hexValue(wchar_t c)
{
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return -1;
}

// Pairs of hexadecimal digits, one byte each; reading stops at an odd last digit or a non-digit.
std::string parseHexKey(const std::wstring& value)
{
    std::string key;
    for (size_t i = 0; i + 1 < value.size() && key.size() < DownloadRequestImp::kMaxKeyBytes; i += 2) {
        const int high = hexValue(value[i]);
        const int low = hexValue(value[i + 1]);
        if (high < 0 || low < 0)
            break;
        key.push_back(static_cast<char>(high * 16 + low));
    }
    return key;
}

bool endsWithNoCase(const std::wstring& text, const wchar_t* suffix)
{
    const size_t n = std::wcslen(suffix);
    if (text.size() < n)
        return false;
    for (size_t i = 0; i < n; ++i)
        if (std::towlower(text[text.size() - n + i]) != std::towlower(suffix[i]))
            return false;
    return true;
}

// Keeps t up to and including its last '/', then appends the file name (all of t goes when it has none).
void replaceLastSegment(std::wstring& t, const wchar_t* fileName)
{
    const size_t slash = t.rfind(L'/');
    t.erase(slash == npos ? 0 : slash + 1);
    t += fileName;
}

std::wstring textOrEmpty(const wchar_t* text) { return text ? std::wstring(text) : std::wstring(); }

// A parameter name always ends in "=" unless it is empty or already holds one.
std::wstring parameterName(const wchar_t* name)
{
    std::wstring value = textOrEmpty(name);
    if (!value.empty() && value.find(L'=') == npos)
        value += L'=';
    return value;
}

std::wstring makeToken(const std::string& resource, const std::string& key)
{
    int64_t expiry = 0;
    char* digest = nullptr;
    const int rc = urlauth_gen_token(resource.c_str(), 0, DownloadRequestImp::kTokenLifetime, key.c_str(), nullptr,
                                     &expiry, &digest);
    const std::unique_ptr<char, qv::CrtFree<char>> release(digest);
    // A block whose token cannot be made keeps an empty one, so that every block still has its own.
    if (rc != URLAUTH_OK || !digest)
        return std::wstring();
    std::wstring expiryText = std::to_wstring(expiry);
    expiryText.resize(std::min(expiryText.size(), DownloadRequestImp::kMaxTokenPart));
    std::wstring digestText;
    for (const char* p = digest; *p && digestText.size() < DownloadRequestImp::kMaxTokenPart; ++p)
        digestText.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*p)));
    return expiryText + L"_" + digestText;
}

} // namespace

DownloadRequest* QvDLM::createDownloadRequest()
{
    try {
        return new DownloadRequestImp();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

DownloadRequestImp::DownloadRequestImp() = default;

const wchar_t* DownloadRequestImp::getId() { return id_.c_str(); }

void DownloadRequestImp::setUrl(const wchar_t* url, const wchar_t* fileName, const wchar_t* suffix)
{
    qv::CsLock hold(lock_);
    try {
        originalUrl_ = textOrEmpty(url);
        tokens_.clear();
        queries_.clear();
        splitUrls(originalUrl_);
        const WStringList pieces = std::move(urls_);
        urls_.clear();
        bool tokenMade = false;
        for (const std::wstring& piece : pieces)
            addPiece(piece, fileName, suffix, tokenMade);
        expand(urls_);
        expand(queries_);
    } catch (const std::exception&) {
        // Out of memory half-way: leave no half-made block list behind.
        urls_.clear();
        tokens_.clear();
        queries_.clear();
        blockCount_ = 0;
    }
    invalidateCurrentUrl();
    updateId();
}

void DownloadRequestImp::splitUrls(const std::wstring& list)
{
    urls_.clear();
    size_t start = list.find(L"http://");
    if (start == npos)
        start = list.find(L"https://");
    while (start != npos) {
        size_t next = list.find(L"http://", start + 1);
        if (next == npos)
            next = list.find(L"https://", start + 1);
        if (next == npos) {
            urls_.push_back(list.substr(start));
            break;
        }
        // The one character before the next URL is the separator and belongs to neither.
        urls_.push_back(list.substr(start, next - 1 - start));
        start = next;
    }
    blockCount_ = static_cast<int32_t>(urls_.size());
}

void DownloadRequestImp::addPiece(const std::wstring& s, const wchar_t* fileName, const wchar_t* suffix,
                                  bool& tokenMade)
{
    const bool renamed = fileName && *fileName;
    const size_t q = s.find(L'?');
    if (q == npos) {
        std::wstring t = s;
        if (renamed)
            replaceLastSegment(t, fileName);
        applyBlockNaming(t);
        urls_.push_back(t);
        return;
    }

    // The path starts at the first '/' after the scheme's "//"; a URL without one has an empty path.
    size_t h = s.find(L'/', 8);
    if (h == npos || h > q)
        h = q;
    std::wstring url = s.substr(0, h);
    std::wstring t = s.substr(h, q - h);
    if (renamed)
        replaceLastSegment(t, fileName);
    applyBlockNaming(t);
    url += t;

    if (!authParamName_.empty()) {
        const size_t at = s.find(authParamName_, q);
        if (at != npos) {
            std::wstring value;
            const size_t eq = s.find(L'=', at);
            if (eq != npos) {
                const size_t end = s.find(L'&', eq + 1);
                value = s.substr(eq + 1, end == npos ? npos : end - eq - 1);
            }
            url += L"?";
            url += authParamName_;
            url += kTokenField;
            addTokens(t, parseHexKey(value));
            tokenMade = true;
        }
    }
    urls_.push_back(url);

    std::wstring query;
    const size_t p = sessionParamName_.empty() ? npos : s.find(sessionParamName_, q);
    if (p != npos) {
        // With a token the auth parameter that leads the query is left out.
        query = tokenMade ? s.substr(p) : s.substr(q + 1);
        if (blockCount_ >= 2) {
            std::wstring ins = L"_%03d";
            const size_t named = t.find(L"_%03d_");
            if (named != npos)
                ins = t.substr(named, 9);
            const size_t keyEnd = (tokenMade ? 0 : p - (q + 1)) + sessionParamName_.size();
            const size_t amp = query.find(L'&', keyEnd);
            if (amp == npos)
                query += ins;
            else
                query.insert(amp, ins);
        }
        if (suffix) {
            query += L"_";
            query += suffix;
        }
    } else if (tokenMade) {
        const size_t amp = s.find(L'&', q);
        if (amp != npos)
            query = s.substr(amp + 1);
    } else {
        query = s.substr(q + 1);
    }
    // An empty query would only add a bare separator to the URL, and cannot be stored.
    if (!query.empty())
        queries_.push_back(query);
}

void DownloadRequestImp::addTokens(const std::wstring& resource, const std::string& key)
{
    const std::string narrow = narrowForLocale(resource);
    if (blockCount_ != 1 && narrow.find("%03d") != std::string::npos) {
        for (int n = 1; n <= blockCount_; ++n)
            tokens_.push_back(makeToken(formatBlockNarrow(narrow, n), key));
    } else {
        tokens_.push_back(makeToken(narrow, key));
    }
}

bool DownloadRequestImp::applyBlockNaming(std::wstring& t)
{
    if (!endsWithNoCase(t, kLzma2Suffix) && !endsWithNoCase(t, kSfxSuffix))
        return false;
    const size_t found = t.rfind(L"_001_");
    // Without "_001_" the positions are taken from the text's start (the search result wraps), so
    // "NNN" is read at 4..6 and the first three characters are replaced. The rule is kept as it is.
    const size_t number = found == npos ? 0 : found + 1;
    const size_t count = number + 4;
    if (count + 3 >= t.size())
        return false;
    int blocks = 0;
    for (size_t i = count; i < count + 3; ++i) {
        if (t[i] < L'0' || t[i] > L'9')
            return false;
        blocks = blocks * 10 + (t[i] - L'0');
    }
    if (t[count + 3] != L'.')
        return false;
    blockCount_ = blocks;
    t.replace(number, 3, kBlockField);
    return true;
}

void DownloadRequestImp::expand(WStringList& list) const
{
    if (list.empty() || list.front().find(kBlockField) == npos)
        return;
    const std::wstring tmpl = list.front();
    list.clear();
    for (int n = 1; n <= blockCount_; ++n)
        list.push_back(formatBlock(tmpl, n));
}

void DownloadRequestImp::updateId()
{
    id_ = urls_.empty() ? std::wstring() : urls_.front();
    // The id names an INI section, where "]" would end the name.
    for (wchar_t& c : id_)
        if (c == L']')
            c = L' ';
}

void DownloadRequestImp::setVersion(const wchar_t* version) { version_ = textOrEmpty(version); }
const wchar_t* DownloadRequestImp::getVersion() { return version_.c_str(); }
void DownloadRequestImp::setName(const wchar_t* name) { name_ = textOrEmpty(name); }
const wchar_t* DownloadRequestImp::getName() { return name_.c_str(); }
void DownloadRequestImp::setDate(const wchar_t* date) { date_ = textOrEmpty(date); }
const wchar_t* DownloadRequestImp::getDate() { return date_.c_str(); }

void DownloadRequestImp::setBlockId(int32_t blockId)
{
    qv::CsLock hold(lock_);
    blockId_ = blockId;
    buildCurrentUrl();
}

int32_t DownloadRequestImp::getBlockId() { return blockId_; }
void DownloadRequestImp::setBlockCount(int32_t count) { blockCount_ = count; }
int32_t DownloadRequestImp::getBlockCount() { return blockCount_; }

void DownloadRequestImp::clearTokens()
{
    qv::CsLock hold(lock_);
    tokens_.clear();
    invalidateCurrentUrl();
}

void DownloadRequestImp::addToken(const wchar_t* token)
{
    qv::CsLock hold(lock_);
    tokens_.push_back(textOrEmpty(token));
    invalidateCurrentUrl();
}

const wchar_t* DownloadRequestImp::getToken(int32_t index)
{
    if (index < 0 || static_cast<size_t>(index) >= tokens_.size())
        return nullptr;
    return tokens_[static_cast<size_t>(index)].c_str();
}

void DownloadRequestImp::clearQueries()
{
    qv::CsLock hold(lock_);
    queries_.clear();
    invalidateCurrentUrl();
}

void DownloadRequestImp::addQuery(const wchar_t* query)
{
    qv::CsLock hold(lock_);
    queries_.push_back(textOrEmpty(query));
    invalidateCurrentUrl();
}

const WStringList& DownloadRequestImp::getQueries() { return queries_; }
void DownloadRequestImp::setContentLength(int64_t length) { contentLength_ = length; }
int64_t DownloadRequestImp::getContentLength() { return contentLength_; }
void DownloadRequestImp::setCompressedSize(uint64_t size) { compressedSize_ = size; }
uint64_t DownloadRequestImp::getCompressedSize() { return compressedSize_; }
void DownloadRequestImp::setUncompressedSize(uint64_t size) { uncompressedSize_ = size; }
uint64_t DownloadRequestImp::getUncompressedSize() { return uncompressedSize_; }
void DownloadRequestImp::setState(uint32_t state) { state_ = state; }
uint32_t DownloadRequestImp::getState() { return state_; }
void DownloadRequestImp::setStatus(uint32_t status) { status_ = status; }
uint32_t DownloadRequestImp::getStatus() { return status_; }
void DownloadRequestImp::setDestDir(const wchar_t* dir) { destDir_ = textOrEmpty(dir); }
const wchar_t* DownloadRequestImp::getDestDir() { return destDir_.c_str(); }
void DownloadRequestImp::setExePath(const wchar_t* path) { exePath_ = textOrEmpty(path); }
const wchar_t* DownloadRequestImp::getExePath() { return exePath_.c_str(); }
void DownloadRequestImp::setExeParam(const wchar_t* param) { exeParam_ = textOrEmpty(param); }
const wchar_t* DownloadRequestImp::getExeParam() { return exeParam_.c_str(); }
void DownloadRequestImp::setAutoOpen(bool autoOpen) { autoOpen_ = autoOpen; }
bool DownloadRequestImp::getAutoOpen() { return autoOpen_; }
void DownloadRequestImp::setAuthParamName(const wchar_t* name) { authParamName_ = parameterName(name); }
const wchar_t* DownloadRequestImp::getAuthParamName() { return authParamName_.c_str(); }
void DownloadRequestImp::setSessionParamName(const wchar_t* name) { sessionParamName_ = parameterName(name); }
const wchar_t* DownloadRequestImp::getSessionParamName() { return sessionParamName_.c_str(); }
void DownloadRequestImp::setCheckpointId(uint32_t id) { checkpointId_ = id; }
uint32_t DownloadRequestImp::getCheckpointId() { return checkpointId_; }
void DownloadRequestImp::setCheckpointDir(const wchar_t* dir) { checkpointDir_ = textOrEmpty(dir); }
const wchar_t* DownloadRequestImp::getCheckpointDir() { return checkpointDir_.c_str(); }
void DownloadRequestImp::setSaveInterval(uint64_t bytes) { saveInterval_ = bytes; }
uint64_t DownloadRequestImp::getSaveInterval() { return saveInterval_; }
const wchar_t* DownloadRequestImp::getOriginalUrl() { return originalUrl_.c_str(); }
void DownloadRequestImp::setOriginalUrl(const wchar_t* url) { originalUrl_ = textOrEmpty(url); }
const WStringList& DownloadRequestImp::getUrls() { return urls_; }

void DownloadRequestImp::setUrls(const wchar_t* urls)
{
    if (!urls)
        return;
    qv::CsLock hold(lock_);
    try {
        splitUrls(urls);
    } catch (const std::exception&) {
        urls_.clear();
        blockCount_ = 0;
    }
    invalidateCurrentUrl();
    updateId();
}

void DownloadRequestImp::invalidateCurrentUrl() { currentUrl_[0] = L'\0'; }

const wchar_t* DownloadRequestImp::buildCurrentUrl()
{
    FixedWriter out(currentUrl_.data(), currentUrl_.size());
    if (blockId_ < 0 || static_cast<size_t>(blockId_) >= urls_.size())
        return nullptr;
    const size_t block = static_cast<size_t>(blockId_);
    if (!tokens_.empty()) {
        if (block >= tokens_.size())
            return nullptr;
        writeWithToken(out, urls_[block], tokens_[block]);
    } else {
        out.append(urls_[block]);
    }
    if (!useAkamai_ && !queries_.empty()) {
        const wchar_t* query = getQuery();
        if (query) {
            out.append(out.contains(L'?') ? L'&' : L'?');
            out.append(query, std::wcslen(query));
        }
    }
    return currentUrl_.data();
}

const wchar_t* DownloadRequestImp::buildLocalUrl()
{
    FixedWriter plain(serveFileUrl_.data(), serveFileUrl_.size());
    FixedWriter withToken(serveFileUrlWithToken_.data(), serveFileUrlWithToken_.size());
    if (blockId_ < 0 || static_cast<size_t>(blockId_) >= urls_.size())
        return nullptr;
    const size_t block = static_cast<size_t>(blockId_);
    plain.append(kLocalServePrefix, std::wcslen(kLocalServePrefix));
    plain.append(urls_[block]);
    if (tokens_.empty())
        return serveFileUrl_.data();
    if (block >= tokens_.size())
        return nullptr;
    writeWithToken(withToken, plain.text(), tokens_[block]);
    return serveFileUrlWithToken_.data();
}

const wchar_t* DownloadRequestImp::getUrl(bool local)
{
    qv::CsLock hold(lock_);
    if (local && useAkamai_)
        return buildLocalUrl();
    if (currentUrl_[0] != L'\0')
        return currentUrl_.data();
    return buildCurrentUrl();
}

const wchar_t* DownloadRequestImp::getUrlPath()
{
    qv::CsLock hold(lock_);
    urlPath_.clear();
    const wchar_t* url = getUrl(false);
    if (!url)
        return urlPath_.c_str();
    try {
        static const std::wregex kUrlParts(L"^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?",
                                           std::regex_constants::ECMAScript);
        std::wcmatch parts;
        if (std::regex_search(url, parts, kUrlParts))
            urlPath_ = parts[5].str();
    } catch (const std::exception&) {
        urlPath_.clear();
    }
    return urlPath_.c_str();
}

const wchar_t* DownloadRequestImp::getQuery()
{
    if (queries_.empty())
        return nullptr;
    if (queries_.size() == 1)
        return queries_.front().c_str();
    if (blockId_ < 0 || static_cast<size_t>(blockId_) >= queries_.size())
        return nullptr;
    return queries_[static_cast<size_t>(blockId_)].c_str();
}

const wchar_t* DownloadRequestImp::nextBlock()
{
    qv::CsLock hold(lock_);
    if (static_cast<int64_t>(blockId_) + 1 < blockCount_) {
        setBlockId(blockId_ + 1);
        return getUrl(true);
    }
    finished_ = true;
    return nullptr;
}

bool DownloadRequestImp::getUseAkamai() { return useAkamai_; }

void DownloadRequestImp::setUseAkamai(bool use)
{
    qv::CsLock hold(lock_);
    useAkamai_ = use;
    // The query is appended only for plain HTTP, so the cached URL no longer fits.
    invalidateCurrentUrl();
}

bool DownloadRequestImp::pathEndsWith(const wchar_t* suffix)
{
    std::wstring path = getUrlPath();
    for (wchar_t& c : path)
        c = static_cast<wchar_t>(std::towlower(c));
    const size_t n = std::wcslen(suffix);
    // The test is "last occurrence starts at length minus suffix length" in unsigned arithmetic: a path
    // one character shorter than the suffix has no occurrence and that position wraps to the same value.
    if (path.size() + 1 == n)
        return true;
    return path.size() >= n && path.rfind(suffix) == path.size() - n;
}

bool DownloadRequestImp::isLzma2Package() { return pathEndsWith(kLzma2Suffix); }
bool DownloadRequestImp::isSfxPackage() { return pathEndsWith(kSfxSuffix); }
uint64_t DownloadRequestImp::getBlockDownloadedSize() { return blockDownloadedSize_; }
void DownloadRequestImp::setBlockDownloadedSize(uint64_t size) { blockDownloadedSize_ = size; }
uint64_t DownloadRequestImp::getTotalDownloadedSize() { return totalDownloadedSize_; }
void DownloadRequestImp::setTotalDownloadedSize(uint64_t size) { totalDownloadedSize_ = size; }
uint64_t DownloadRequestImp::getExtractedSize() { return extractedSize_; }
void DownloadRequestImp::setExtractedSize(uint64_t size) { extractedSize_ = size; }
bool DownloadRequestImp::isFinished() { return finished_; }
bool DownloadRequestImp::getHttpFallback() { return httpFallback_; }
void DownloadRequestImp::setHttpFallback(bool fallback) { httpFallback_ = fallback; }
int32_t DownloadRequestImp::getRetryCount() { return retryCount_; }
void DownloadRequestImp::setRetryCount(int32_t count) { retryCount_ = count; }
int32_t DownloadRequestImp::getFallbackRetryCount() { return fallbackRetryCount_; }
void DownloadRequestImp::setFallbackRetryCount(int32_t count) { fallbackRetryCount_ = count; }
int32_t DownloadRequestImp::getAuxRetryCount() { return auxRetryCount_; }
void DownloadRequestImp::setAuxRetryCount(int32_t count) { auxRetryCount_ = count; }
