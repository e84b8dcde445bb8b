// The qvdlm command line: which command to run and its options, parsed without touching the system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvcli {

enum class Command { Help, Version, Get, Resume, List, Remove, Proxy, Token };

struct Options {
    Command command = Command::Help;
    std::vector<std::wstring> urls; // get: one download per URL (a URL may itself list block URLs)
    std::wstring target;            // remove: the request's ID; proxy and token: the URL

    // get
    std::wstring dest;         // destination folder (default: the current folder)
    std::wstring name;         // display name (default: taken from the URL)
    std::wstring file;         // file name that replaces the URL's last path segment
    std::wstring authParam;    // query parameter that carries the URL-token key
    std::wstring sessionParam; // query parameter that carries the session key
    bool akamai = false;
    bool hasSaveInterval = false;
    uint64_t saveInterval = 0;
    uint64_t size = 0;         // compressed (downloaded) size of the package, 0 when unknown
    uint64_t unpackedSize = 0; // size of the unpacked files, 0 when unknown

    // get and resume
    int maxActive = 0;         // 0: the library's limit
    std::wstring logPath;
    unsigned timeoutSeconds = 0; // 0: no limit; when it runs out progress is kept as on Ctrl+C
    uint64_t stopAfter = 0;      // test hook: stop keeping progress once this many bytes arrived

    // every command that uses the request store
    std::wstring storePath; // empty: the library's own store

    // proxy
    bool askCredentials = false;

    // token
    std::wstring keyHex;
    std::wstring tokenParam;
    std::wstring tokenExtra;
    uint64_t tokenStart = 0;          // 0: now
    uint64_t tokenLifetime = 2592000; // 30 days
};

struct ParseResult {
    bool ok = false;
    Options options;
    std::wstring error; // why the command line was refused
};

// args excludes the program name.
ParseResult parseCommandLine(const std::vector<std::wstring>& args);

// Byte counts: digits with an optional K, M or G suffix (powers of 1024), optionally followed by "iB" or "B".
bool parseByteSize(const std::wstring& text, uint64_t& out);

const wchar_t* usageText();

} // namespace qvcli
