#include "CommandLine.h"

#include <cwchar>
#include <cwctype>
#include <functional>
#include <initializer_list>

namespace qvcli {

namespace {

unsigned bit(Command c) { return 1u << static_cast<unsigned>(c); }

unsigned bits(std::initializer_list<Command> commands)
{
    unsigned mask = 0;
    for (Command c : commands)
        mask |= bit(c);
    return mask;
}

bool parseUnsigned(const std::wstring& text, uint64_t limit, uint64_t& out)
{
    if (text.empty() || text.size() > 20)
        return false;
    uint64_t value = 0;
    for (wchar_t ch : text) {
        if (ch < L'0' || ch > L'9')
            return false;
        const uint64_t digit = static_cast<uint64_t>(ch - L'0');
        if (value > (limit - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    out = value;
    return true;
}

struct OptionSpec {
    const wchar_t* name;
    bool takesValue;
    unsigned commands;
    // Stores the value; answers an error text, empty when the value is good.
    std::function<std::wstring(Options&, const std::wstring&)> apply;
};

std::wstring byteSize(const std::wstring& value, uint64_t& out, bool allowZero)
{
    if (!parseByteSize(value, out) || (!allowZero && out == 0))
        return L"expects a byte count such as 1048576, 512K or 10M, not \"" + value + L"\"";
    return {};
}

std::wstring text(const std::wstring& value, std::wstring& out)
{
    if (value.empty())
        return L"expects a value";
    out = value;
    return {};
}

const std::vector<OptionSpec>& optionTable()
{
    const unsigned get = bit(Command::Get);
    const unsigned run = bits({Command::Get, Command::Resume});
    const unsigned stored = bits({Command::Get, Command::Resume, Command::List, Command::Remove});
    const unsigned token = bit(Command::Token);
    static const std::vector<OptionSpec> table = {
        {L"dest", true, get, [](Options& o, const std::wstring& v) { return text(v, o.dest); }},
        {L"name", true, get, [](Options& o, const std::wstring& v) { return text(v, o.name); }},
        {L"file", true, get, [](Options& o, const std::wstring& v) {
             if (v.find_first_of(L"/\\:") != std::wstring::npos)
                 return std::wstring(L"expects a plain file name without folders");
             return text(v, o.file);
         }},
        {L"auth-param", true, get, [](Options& o, const std::wstring& v) { return text(v, o.authParam); }},
        {L"session-param", true, get, [](Options& o, const std::wstring& v) { return text(v, o.sessionParam); }},
        {L"akamai", false, get, [](Options& o, const std::wstring&) { o.akamai = true; return std::wstring(); }},
        {L"save-interval", true, get, [](Options& o, const std::wstring& v) {
             o.hasSaveInterval = true;
             return byteSize(v, o.saveInterval, true);
         }},
        {L"size", true, get, [](Options& o, const std::wstring& v) { return byteSize(v, o.size, false); }},
        {L"unpacked-size", true, get,
         [](Options& o, const std::wstring& v) { return byteSize(v, o.unpackedSize, false); }},
        {L"max-active", true, run, [](Options& o, const std::wstring& v) {
             uint64_t n = 0;
             if (!parseUnsigned(v, 256, n) || n == 0)
                 return L"expects a number from 1 to 256, not \"" + v + L"\"";
             o.maxActive = static_cast<int>(n);
             return std::wstring();
         }},
        {L"log", true, run, [](Options& o, const std::wstring& v) { return text(v, o.logPath); }},
        {L"timeout", true, run, [](Options& o, const std::wstring& v) {
             uint64_t n = 0;
             if (!parseUnsigned(v, 0xFFFFFFFFu / 1000, n) || n == 0)
                 return L"expects a number of seconds, not \"" + v + L"\"";
             o.timeoutSeconds = static_cast<unsigned>(n);
             return std::wstring();
         }},
        {L"stop-after", true, run, [](Options& o, const std::wstring& v) { return byteSize(v, o.stopAfter, false); }},
        {L"store", true, stored, [](Options& o, const std::wstring& v) { return text(v, o.storePath); }},
        {L"ask", false, bit(Command::Proxy), [](Options& o, const std::wstring&) {
             o.askCredentials = true;
             return std::wstring();
         }},
        {L"key", true, token, [](Options& o, const std::wstring& v) { return text(v, o.keyHex); }},
        {L"param", true, token, [](Options& o, const std::wstring& v) { return text(v, o.tokenParam); }},
        {L"extra", true, token, [](Options& o, const std::wstring& v) { return text(v, o.tokenExtra); }},
        {L"start", true, token, [](Options& o, const std::wstring& v) {
             return parseUnsigned(v, ~0ull, o.tokenStart) ? std::wstring() : L"expects seconds since 1970, not \"" + v + L"\"";
         }},
        {L"lifetime", true, token, [](Options& o, const std::wstring& v) {
             return parseUnsigned(v, ~0ull, o.tokenLifetime) ? std::wstring() : L"expects a number of seconds, not \"" + v + L"\"";
         }},
    };
    return table;
}

bool commandFromWord(const std::wstring& word, Command& out)
{
    static const struct {
        const wchar_t* word;
        Command command;
    } words[] = {{L"get", Command::Get},     {L"resume", Command::Resume}, {L"list", Command::List},
                 {L"remove", Command::Remove}, {L"proxy", Command::Proxy},   {L"token", Command::Token},
                 {L"help", Command::Help},       {L"--version", Command::Version}, {L"-V", Command::Version}};
    for (const auto& w : words)
        if (word == w.word) {
            out = w.command;
            return true;
        }
    return false;
}

bool isHttpUrl(const std::wstring& url)
{
    for (const std::wstring scheme : {L"http://", L"https://"}) {
        bool same = url.size() > scheme.size();
        for (size_t i = 0; same && i < scheme.size(); ++i)
            same = std::towlower(url[i]) == scheme[i];
        if (same)
            return true;
    }
    return false;
}

ParseResult refuse(std::wstring error)
{
    ParseResult result;
    result.error = std::move(error);
    return result;
}

} // namespace

bool parseByteSize(const std::wstring& text, uint64_t& out)
{
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= L'0' && text[digits] <= L'9')
        ++digits;
    if (digits == 0)
        return false;
    std::wstring suffix = text.substr(digits);
    uint64_t scale = 1;
    if (!suffix.empty()) {
        switch (suffix[0]) {
        case L'k': case L'K': scale = 1ull << 10; break;
        case L'm': case L'M': scale = 1ull << 20; break;
        case L'g': case L'G': scale = 1ull << 30; break;
        default: return false;
        }
        suffix.erase(0, 1);
        if (!suffix.empty() && suffix != L"iB" && suffix != L"B")
            return false;
    }
    uint64_t value = 0;
    if (!parseUnsigned(text.substr(0, digits), ~0ull / scale, value))
        return false;
    out = value * scale;
    return true;
}

ParseResult parseCommandLine(const std::vector<std::wstring>& args)
{
    if (args.empty() || args[0] == L"--help" || args[0] == L"-h" || args[0] == L"/?") {
        ParseResult help;
        help.ok = true;
        return help;
    }
    Options options;
    if (!commandFromWord(args[0], options.command))
        return refuse(L"unknown command \"" + args[0] + L"\"");
    std::vector<std::wstring> positional;

    for (size_t i = 1; i < args.size(); ++i) {
        const std::wstring& arg = args[i];
        if (arg == L"--help" || arg == L"-h") {
            ParseResult help;
            help.ok = true;
            return help;
        }
        if (arg.size() < 3 || arg.compare(0, 2, L"--") != 0) {
            positional.push_back(arg);
            continue;
        }
        std::wstring name = arg.substr(2);
        std::wstring value;
        bool inlineValue = false;
        if (const size_t eq = name.find(L'='); eq != std::wstring::npos) {
            value = name.substr(eq + 1);
            name.erase(eq);
            inlineValue = true;
        }
        const OptionSpec* spec = nullptr;
        for (const OptionSpec& s : optionTable())
            if (name == s.name)
                spec = &s;
        if (!spec || !(spec->commands & bit(options.command)))
            return refuse(L"option --" + name + L" does not belong to \"" + args[0] + L"\"");
        if (spec->takesValue && !inlineValue) {
            if (i + 1 >= args.size())
                return refuse(L"option --" + name + L" needs a value");
            value = args[++i];
        } else if (!spec->takesValue && inlineValue) {
            return refuse(L"option --" + name + L" takes no value");
        }
        if (std::wstring error = spec->apply(options, value); !error.empty())
            return refuse(L"option --" + name + L" " + error);
    }

    switch (options.command) {
    case Command::Help:
    case Command::Version:
        break;
    case Command::Get:
        if (positional.empty())
            return refuse(L"get needs at least one URL");
        for (const std::wstring& url : positional)
            if (!isHttpUrl(url))
                return refuse(L"\"" + url + L"\" is not a URL: it must begin with http:// or https://");
        if (!options.file.empty() && positional.size() > 1)
            return refuse(L"--file names one download's file; give one URL with it");
        if ((options.size || options.unpackedSize) && positional.size() > 1)
            return refuse(L"--size and --unpacked-size describe one package; give one URL with them");
        options.urls = positional;
        break;
    case Command::Resume:
    case Command::List:
        if (!positional.empty())
            return refuse(L"unexpected argument \"" + positional[0] + L"\"");
        break;
    case Command::Remove:
    case Command::Proxy:
    case Command::Token:
        if (positional.size() != 1)
            return refuse(args[0] + (args[0] == L"remove" ? L" needs exactly one ID" : L" needs exactly one URL"));
        options.target = positional[0];
        if (options.command == Command::Token && options.keyHex.empty())
            return refuse(L"token needs --key HEX");
        break;
    }
    ParseResult result;
    result.ok = true;
    result.options = std::move(options);
    return result;
}

const wchar_t* usageText()
{
    return L"usage: qvdlm COMMAND [arguments] [options]\n"
           L"\n"
           L"  get URL... [options]    download packages or files, showing progress\n"
           L"      --dest DIR             destination folder (default: the current folder)\n"
           L"      --name TEXT            display name of the download\n"
           L"      --file NAME            fetch NAME in place of the URL's last path part (one URL only)\n"
           L"      --auth-param NAME      query parameter that carries the URL-token key (hex)\n"
           L"      --session-param NAME   query parameter that carries the session key\n"
           L"      --size BYTES           compressed size of the package, for percent and time left\n"
           L"      --unpacked-size BYTES  size of the unpacked files, for the disk-space check\n"
           L"      --max-active N         downloads running at once (default 3)\n"
           L"      --save-interval BYTES  bytes between checkpoints, the most a stop can lose (default 64M)\n"
           L"      --akamai               deliver through Akamai NetSession, falling back to HTTP\n"
           L"      --log FILE             write the library's download log to FILE\n"
           L"      --timeout SECONDS      stop (resumably) after this long\n"
           L"  resume [--max-active N] [--log FILE] [--timeout SECONDS]\n"
           L"                          finish every stored download\n"
           L"  list                    show the stored downloads with state and progress\n"
           L"  --version               print the version\n"
           L"  remove ID               forget a stored download and delete its partial files\n"
           L"  proxy URL [--ask]       show the proxy that would be used for URL (--ask: allow the\n"
           L"                          credential dialog)\n"
           L"  token URL --key HEX [--start SECONDS] [--lifetime SECONDS] [--param NAME] [--extra TEXT]\n"
           L"                          print URL with a time-limited authentication token\n"
           L"\n"
           L"  --store FILE            use FILE as the request store instead of the library's own\n"
           L"\n"
           L"Ctrl+C stops a download and keeps its progress: \"qvdlm resume\" finishes it.\n"
           L"\n"
           L"Exit status (for several downloads, that of the first one that failed):\n"
           L"  0 every download completed           5 host not trusted\n"
           L"  1 other failure                      6 the server answered with an error (404, ...)\n"
           L"  2 bad command line or URL            7 destination not writable, path too long, disk full\n"
           L"  3 stopped, progress kept (Ctrl+C)    8 the package is damaged\n"
           L"  4 network: cannot resolve or connect, connection lost, proxy\n";
}

} // namespace qvcli
