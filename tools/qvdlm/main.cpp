// qvdlm: command-line client of QvDLM.dll. Uses only the library's public headers.
#include <windows.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Console.h"

int main()
{
    using namespace qvcli;
    std::vector<std::wstring> args;
    int count = 0;
    if (wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &count)) {
        for (int i = 1; i < count; ++i)
            args.emplace_back(argv[i]);
        LocalFree(argv);
    }

    Console console;
    const ParseResult parsed = parseCommandLine(args);
    if (!parsed.ok) {
        console.error(parsed.error);
        console.error(L"\"qvdlm help\" lists the commands");
        return exitcode::Usage;
    }
    const Options& o = parsed.options;
    switch (o.command) {
    case Command::Help: console.line(usageText()); return exitcode::Ok;
    case Command::Get: return runGet(o, console);
    case Command::Resume: return runResume(o, console);
    case Command::List: return runList(o, console);
    case Command::Remove: return runRemove(o, console);
    case Command::Proxy: return runProxy(o, console);
    case Command::Token: return runToken(o, console);
    }
    return exitcode::Usage;
}
