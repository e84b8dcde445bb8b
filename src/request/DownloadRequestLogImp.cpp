#include "request/DownloadRequestLogImp.h"

#include <windows.h>
#include <shlobj.h>

#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <exception>
#include <initializer_list>
#include <new>
#include <set>
#include <string>

#include "QvDLMCodes.h"
#include "common/Win32Raii.h"
#include "request/DownloadRequestImp.h"
#include "request/StoreBackup.h"

namespace {

constexpr wchar_t kPreferences[] = L"Preferences";
constexpr wchar_t kStoreVersion[] = L"1.2";
constexpr wchar_t kStoreFolder[] = L"Quorvel\\Tarnwick";
constexpr wchar_t kStoreFile[] = L"download.info";
// Default of a profile read that no stored value can equal: tells a missing key from an empty one.
constexpr wchar_t kAbsent[] = L"\x01";
// Rounds of deletion for a section that a damaged file holds more than once.
constexpr int kMaxSectionCopies = 16;

DownloadRequestLogImp* g_store = nullptr;

void destroyStore()
{
    delete g_store;
    g_store = nullptr;
}

// A line break inside a value or a section name would start a new key or section in the file.
std::wstring oneLine(const wchar_t* text)
{
    std::wstring value = text ? text : L"";
    for (wchar_t& c : value)
        if (c == L'\r' || c == L'\n')
            c = L' ';
    return value;
}

bool isDigits(const wchar_t* text, size_t maxDigits)
{
    const size_t n = std::wcslen(text);
    if (n == 0 || n > maxDigits)
        return false;
    for (size_t i = 0; i < n; ++i)
        if (text[i] < L'0' || text[i] > L'9')
            return false;
    return true;
}

// Decimal numbers as the store writes them; anything else (garbage, overflow) is not a number.
bool parseU64(const wchar_t* text, uint64_t& out)
{
    if (!isDigits(text, 20))
        return false;
    uint64_t value = 0;
    for (const wchar_t* p = text; *p; ++p) {
        const uint64_t digit = static_cast<uint64_t>(*p - L'0');
        if (value > (UINT64_MAX - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    out = value;
    return true;
}

bool parseU32(const wchar_t* text, uint32_t& out)
{
    uint64_t value = 0;
    if (!parseU64(text, value) || value > UINT32_MAX)
        return false;
    out = static_cast<uint32_t>(value);
    return true;
}

bool parseI32(const wchar_t* text, int32_t& out)
{
    const bool negative = *text == L'-';
    uint64_t magnitude = 0;
    if (!parseU64(negative ? text + 1 : text, magnitude))
        return false;
    const int64_t value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    if (magnitude > 0x80000000ull || value < INT32_MIN || value > INT32_MAX)
        return false;
    out = static_cast<int32_t>(value);
    return true;
}

std::wstring flag(bool value) { return value ? L"1" : L"0"; }

bool startsWithNoCase(const wchar_t* text, const wchar_t* prefix)
{
    for (; *prefix; ++text, ++prefix)
        if (*text == L'\0' || std::towlower(*text) != std::towlower(*prefix))
            return false;
    return true;
}

std::wstring lowerCase(const wchar_t* text)
{
    std::wstring out = text;
    for (wchar_t& c : out)
        c = static_cast<wchar_t>(std::towlower(c));
    return out;
}

bool directoryExists(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool writeByteOrderMark(HANDLE file)
{
    static const BYTE kBom[2] = {0xFF, 0xFE};
    DWORD written = 0;
    return WriteFile(file, kBom, sizeof kBom, &written, nullptr) && written == sizeof kBom;
}

} // namespace

DownloadRequestLog* DownloadRequestLog::getInstance()
{
    // Made on first use; the client's first call comes before several threads can race for it.
    if (!g_store) {
        g_store = new DownloadRequestLogImp();
        std::atexit(destroyStore);
    }
    return g_store;
}

bool DownloadRequestLogImp::open(const wchar_t* path)
{
    try {
        if (path) {
            // A relative name would send the profile functions to the Windows folder.
            wchar_t full[MAX_PATH];
            const DWORD n = GetFullPathNameW(path, MAX_PATH, full, nullptr);
            path_ = (n > 0 && n < MAX_PATH) ? std::wstring(full, n) : std::wstring(path);
            wchar_t folder[MAX_PATH];
            if (path_.size() < MAX_PATH) {
                wcscpy_s(folder, path_.c_str());
                wchar_t* last = std::wcsrchr(folder, L'\\');
                if (wchar_t* slash = std::wcsrchr(folder, L'/'); slash > last)
                    last = slash;
                if (last) {
                    *last = L'\0';
                    if (folder[0] && !directoryExists(folder))
                        SHCreateDirectoryExW(nullptr, folder, nullptr);
                }
            }
        } else {
            wchar_t base[MAX_PATH];
            if (SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, base))) {
                const std::wstring folder = std::wstring(base) + L"\\" + kStoreFolder;
                if (!directoryExists(folder))
                    SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
                path_ = folder + L"\\" + kStoreFile;
            }
        }
    } catch (const std::exception&) {
        return false;
    }
    StoreBackup::recover(path_);
    ensureFile();
    return !path_.empty();
}

// Creates the file with its byte-order mark before any profile write: the profile functions keep a
// UTF-16 file in UTF-16, but write a file that they create themselves in the ANSI code page.
bool DownloadRequestLogImp::ensureFile()
{
    if (path_.empty())
        return false;
    WIN32_FILE_ATTRIBUTE_DATA info;
    if (GetFileAttributesExW(path_.c_str(), GetFileExInfoStandard, &info)) {
        if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            return false;
        if (info.nFileSizeLow != 0 || info.nFileSizeHigh != 0)
            return true;
        // An empty file (cut off before its first write) holds nothing to lose: start it afresh.
        qv::UniqueFile empty(CreateFileW(path_.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!empty || !writeByteOrderMark(empty.get()))
            return false;
    } else {
        qv::UniqueFile created(CreateFileW(path_.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!created || !writeByteOrderMark(created.get()))
            return false;
    }
    WritePrivateProfileStringW(kPreferences, L"VERSION", kStoreVersion, path_.c_str());
    return true;
}

bool DownloadRequestLogImp::accepts(DownloadRequest* request) const
{
    return !path_.empty() && request && request->getId()[0] != L'\0';
}

void DownloadRequestLogImp::write(const wchar_t* section, const wchar_t* key, const wchar_t* value)
{
    // Failed writes are ignored: the store answers for the request, not for the disk.
    WritePrivateProfileStringW(section, key, oneLine(value).c_str(), path_.c_str());
}

void DownloadRequestLogImp::write(const wchar_t* section, const wchar_t* key, const std::wstring& value)
{
    write(section, key, value.c_str());
}

bool DownloadRequestLogImp::read(const wchar_t* section, const wchar_t* key, std::wstring& value)
{
    // A value that fills the buffer may have been cut (the call then answers size - 1): read it again
    // into one twice as large.
    for (unsigned size = kValueBufferSize;; size *= 2) {
        value.assign(size, L'\0');
        const DWORD length = GetPrivateProfileStringW(section, key, kAbsent, value.data(), size, path_.c_str());
        if (length + 1 < size || size >= kValueLimit) {
            value.resize(length < size ? length : size - 1);
            break;
        }
    }
    return value != kAbsent;
}

bool DownloadRequestLogImp::add(DownloadRequest* request)
{
    if (!accepts(request))
        return false;
    const std::wstring section = oneLine(request->getId());
    const wchar_t* s = section.c_str();
    // Adding never overwrites a stored request.
    if (exists(s))
        return true;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);

    try {
        std::wstring urls;
        for (const std::wstring& url : request->getUrls()) {
            if (!urls.empty())
                urls += L';';
            urls += url;
        }
        const int32_t blockCount = request->getBlockCount();
        const int32_t tokenSlots = blockCount < kMaxStoredBlocks ? blockCount : kMaxStoredBlocks;
        std::wstring tokens;
        for (int32_t i = 0; i < tokenSlots; ++i) {
            if (const wchar_t* token = request->getToken(i)) {
                tokens += token;
                tokens += L',';
            }
        }
        std::wstring queries;
        for (const std::wstring& query : request->getQueries()) {
            queries += query;
            queries += L',';
        }

        write(s, L"VERSION", request->getVersion());
        write(s, L"ORIGINAL_URL", request->getOriginalUrl());
        write(s, L"URLS", urls);
        write(s, L"NAME", request->getName());
        write(s, L"DEST_DIR", request->getDestDir());
        // Requests of the current version keep their launch settings in the package instead.
        if (std::wcscmp(request->getVersion(), L"1.0") == 0) {
            write(s, L"EXE_PATH", request->getExePath());
            write(s, L"EXE_PARAM", request->getExeParam());
            write(s, L"AUTO_OPEN", flag(request->getAutoOpen()));
        }
        write(s, L"AUTH_TOKEN", request->getAuthParamName());
        write(s, L"REPORTING_TOKEN", request->getSessionParamName());
        write(s, L"BLOCK_ID", std::to_wstring(request->getBlockId()));
        write(s, L"BLOCK_COUNT", std::to_wstring(blockCount));
        write(s, L"TOKENS", tokens);
        write(s, L"QUERIES", queries);
        write(s, L"COMPRESSED_SIZE", std::to_wstring(request->getCompressedSize()));
        write(s, L"UNCOMPRESSED_SIZE", std::to_wstring(request->getUncompressedSize()));
        write(s, L"STATE", std::to_wstring(static_cast<int32_t>(request->getState())));
        write(s, L"BLOCK_DOWNLOADED_SIZE", std::to_wstring(request->getBlockDownloadedSize()));
        write(s, L"TOTAL_DOWNLOADED_SIZE",
              std::to_wstring(request->getTotalDownloadedSize() + request->getBlockDownloadedSize()));
        write(s, L"EXTRACTED_SIZE", std::to_wstring(request->getExtractedSize()));
        write(s, L"CHKPT_ID", std::to_wstring(request->getCheckpointId()));
        write(s, L"CHKPT_DIR", request->getCheckpointDir());
        write(s, L"SAVE_INTERVAL", std::to_wstring(request->getSaveInterval()));
        write(s, L"USE_AKAMAI", flag(request->getUseAkamai()));
        write(s, L"HTTP_FALLBACK", flag(request->getHttpFallback()));
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

bool DownloadRequestLogImp::remove(const wchar_t* section)
{
    if (path_.empty() || !section)
        return false;
    const std::wstring name = oneLine(section);
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    // A damaged file can hold the same section more than once; the profile functions delete one per call.
    wchar_t keys[4];
    for (int round = 0; round < kMaxSectionCopies; ++round) {
        WritePrivateProfileStringW(name.c_str(), nullptr, nullptr, path_.c_str());
        if (GetPrivateProfileStringW(name.c_str(), nullptr, L"", keys, 4, path_.c_str()) == 0)
            break;
    }
    return true;
}

bool DownloadRequestLogImp::exists(const wchar_t* section)
{
    if (path_.empty() || !section)
        return false;
    wchar_t destDir[2];
    GetPrivateProfileStringW(oneLine(section).c_str(), L"DEST_DIR", L"", destDir, 2, path_.c_str());
    return destDir[0] != L'\0';
}

bool DownloadRequestLogImp::load(const wchar_t* section, DownloadRequest* request)
{
    if (path_.empty() || !section || !request)
        return false;
    try {
        return loadBody(oneLine(section).c_str(), request);
    } catch (const std::exception&) {
        return false;
    }
}

bool DownloadRequestLogImp::loadBody(const wchar_t* s, DownloadRequest* request)
{
    std::wstring text;
    const wchar_t* value = L"";
    auto optional = [&](const wchar_t* key) {
        const bool present = read(s, key, text);
        value = text.c_str();
        return present;
    };
    auto required = [&](const wchar_t* key) { return optional(key) && value[0] != L'\0'; };

    if (!required(L"VERSION"))
        return false;
    request->setVersion(value);
    int32_t state = 0;
    // A state that is not a number cannot be resumed from: treated like a missing one.
    if (!required(L"STATE") || !parseI32(value, state))
        return false;
    request->setState(static_cast<uint32_t>(state));
    if (!required(L"ORIGINAL_URL"))
        return false;
    request->setOriginalUrl(value);
    if (!required(L"URLS"))
        return false;
    request->setUrls(value);
    if (!required(L"NAME"))
        return false;
    request->setName(value);
    if (optional(L"DATE"))
        request->setDate(value);
    if (!required(L"DEST_DIR"))
        return false;
    request->setDestDir(value);

    if (optional(L"EXE_PATH"))
        request->setExePath(value);
    if (optional(L"EXE_PARAM"))
        request->setExeParam(value);
    if (optional(L"AUTO_OPEN"))
        request->setAutoOpen(std::wcscmp(value, L"1") == 0);
    if (optional(L"AUTH_TOKEN"))
        request->setAuthParamName(value);
    if (optional(L"REPORTING_TOKEN"))
        request->setSessionParamName(value);

    // A count outside what block names can express is damage: the count of stored URLs stands instead,
    // and no buffer is sized by it.
    if (!optional(L"BLOCK_COUNT"))
        value = L"1";
    int32_t blocks = 0;
    if (parseI32(value, blocks) && blocks >= 1 && blocks <= kMaxStoredBlocks) {
        request->setBlockCount(blocks);
    } else {
        blocks = request->getBlockCount();
        blocks = blocks < 1 ? 1 : (blocks > kMaxStoredBlocks ? kMaxStoredBlocks : blocks);
    }

    {
        std::wstring buffer;
        if (read(s, L"TOKENS", buffer) && !buffer.empty()) {
            request->clearTokens();
            wchar_t* piece = buffer.data();
            for (int32_t i = 0; i < blocks && *piece; ++i) {
                wchar_t* comma = std::wcschr(piece, L',');
                if (!comma) {
                    request->addToken(piece); // a last token without its comma
                    break;
                }
                *comma = L'\0';
                request->addToken(piece);
                piece = comma + 1;
            }
        }
    }
    {
        std::wstring buffer;
        if (read(s, L"QUERIES", buffer)) {
            request->clearQueries();
            wchar_t* piece = buffer.data();
            while (*piece) {
                wchar_t* comma = std::wcschr(piece, L',');
                if (comma)
                    *comma = L'\0';
                request->addQuery(piece);
                if (!comma)
                    break;
                piece = comma + 1;
            }
        }
    }

    uint64_t size = 0;
    uint32_t number = 0;
    if (optional(L"COMPRESSED_SIZE") && parseU64(value, size))
        request->setCompressedSize(size);
    if (optional(L"UNCOMPRESSED_SIZE") && parseU64(value, size))
        request->setUncompressedSize(size);
    if (optional(L"BLOCK_DOWNLOADED_SIZE") && parseU64(value, size))
        request->setBlockDownloadedSize(size);
    if (optional(L"TOTAL_DOWNLOADED_SIZE") && parseU64(value, size))
        request->setTotalDownloadedSize(size);
    if (optional(L"EXTRACTED_SIZE") && parseU64(value, size))
        request->setExtractedSize(size);
    if (optional(L"CHKPT_ID") && parseU32(value, number))
        request->setCheckpointId(number);
    if (optional(L"CHKPT_DIR"))
        request->setCheckpointDir(value);
    if (optional(L"SAVE_INTERVAL") && parseU64(value, size))
        request->setSaveInterval(size);
    if (optional(L"USE_AKAMAI"))
        request->setUseAkamai(std::wcscmp(value, L"1") == 0);
    if (optional(L"HTTP_FALLBACK"))
        request->setHttpFallback(std::wcscmp(value, L"1") == 0);

    // Last, so that the current URL is built from the loaded lists. A block outside the request counts
    // as absent: the download then starts from its first block.
    int32_t blockId = 0;
    if (optional(L"BLOCK_ID") && parseI32(value, blockId) && blockId >= 0 && blockId < request->getBlockCount())
        request->setBlockId(blockId);
    return true;
}

bool DownloadRequestLogImp::loadAll(DownloadRequestSet& requests)
{
    if (path_.empty())
        return false;
    try {
        qv::HeapBlock buffer;
        DWORD size = kSectionNamesInitial;
        DWORD length = 0;
        for (;;) {
            buffer = qv::HeapBlock(size * sizeof(wchar_t));
            if (!buffer)
                return false;
            length = GetPrivateProfileSectionNamesW(buffer.as<wchar_t>(), size, path_.c_str());
            // size - 2 means the list was cut.
            if (length != size - 2 || size >= kSectionNamesLimit)
                break;
            size *= 2;
        }

        const wchar_t* names = buffer.as<wchar_t>();
        std::set<std::wstring> seen;
        for (DWORD at = 0; at < length && names[at] != L'\0';) {
            const wchar_t* name = names + at;
            at += static_cast<DWORD>(std::wcslen(name)) + 1;
            if (!startsWithNoCase(name, L"http:") && !startsWithNoCase(name, L"https:"))
                continue;
            // A damaged file may repeat a section; the profile functions only ever read its first copy.
            if (!seen.insert(lowerCase(name)).second)
                continue;
            const std::wstring section = name;
            DownloadRequestImp* request = new (std::nothrow) DownloadRequestImp();
            if (!request)
                return false;
            if (load(section.c_str(), request)) {
                requests.insert(request);
            } else {
                remove(section.c_str());
                delete request;
            }
        }
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

bool DownloadRequestLogImp::saveLaunch(DownloadRequest* request)
{
    if (!accepts(request))
        return false;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    const std::wstring s = oneLine(request->getId());
    write(s.c_str(), L"EXE_PATH", request->getExePath());
    write(s.c_str(), L"EXE_PARAM", request->getExeParam());
    write(s.c_str(), L"AUTO_OPEN", flag(request->getAutoOpen()));
    return true;
}

bool DownloadRequestLogImp::saveDestDir(DownloadRequest* request)
{
    if (!accepts(request))
        return false;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    write(oneLine(request->getId()).c_str(), L"DEST_DIR", request->getDestDir());
    return true;
}

void DownloadRequestLogImp::writeStoredState(DownloadRequest* request, uint32_t state)
{
    // Init and exiting are passing states: the stored state keeps its previous value.
    if (state == qvdlm::state::Init || state == qvdlm::state::Exiting)
        return;
    write(oneLine(request->getId()).c_str(), L"STATE", std::to_wstring(static_cast<int32_t>(state)));
}

bool DownloadRequestLogImp::saveState(DownloadRequest* request, uint32_t state)
{
    if (!accepts(request))
        return false;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    writeStoredState(request, state);
    const std::wstring s = oneLine(request->getId());
    if (state == qvdlm::state::Aborting) {
        for (const wchar_t* key : {L"BLOCK_ID", L"BLOCK_DOWNLOADED_SIZE", L"TOTAL_DOWNLOADED_SIZE", L"EXTRACTED_SIZE",
                                   L"CHKPT_ID"})
            write(s.c_str(), key, L"0");
        return true;
    }
    if (state == qvdlm::state::Completed)
        write(s.c_str(), L"DATE", request->getDate());
    return true;
}

bool DownloadRequestLogImp::saveProgress(DownloadRequest* request, uint32_t state, uint32_t checkpointId)
{
    // An aborting download has just had its progress cleared.
    if (state == qvdlm::state::Aborting)
        return true;
    if (!accepts(request))
        return false;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    const std::wstring s = oneLine(request->getId());
    write(s.c_str(), L"BLOCK_ID", std::to_wstring(request->getBlockId()));
    write(s.c_str(), L"BLOCK_DOWNLOADED_SIZE", std::to_wstring(request->getBlockDownloadedSize()));
    // The block part is not added here, unlike when the request is first stored.
    write(s.c_str(), L"TOTAL_DOWNLOADED_SIZE", std::to_wstring(request->getTotalDownloadedSize()));
    write(s.c_str(), L"EXTRACTED_SIZE", std::to_wstring(request->getExtractedSize()));
    write(s.c_str(), L"CHKPT_ID", std::to_wstring(checkpointId));
    writeStoredState(request, state);
    return true;
}

bool DownloadRequestLogImp::saveUseAkamai(DownloadRequest* request)
{
    if (!accepts(request))
        return false;
    if (!ensureFile())
        return true;
    const qv::CsLock hold(lock_);
    const StoreBackup backup(path_);
    write(oneLine(request->getId()).c_str(), L"USE_AKAMAI", flag(request->getUseAkamai()));
    return true;
}

const wchar_t* DownloadRequestLogImp::getPath() { return path_.c_str(); }
