// qvdlm: command-line client of QvDLM.dll. Uses only the library's public headers.
#include <windows.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "Commands.h"
#include "Console.h"

int main()
{
    std::vector<std::wstring> args;
    int count = 0;
    if (wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &count)) {
        for (int i = 1; i < count; ++i)
            args.emplace_back(argv[i]);
        LocalFree(argv);
    }
    qvcli::Console console;
    return qvcli::runCommandLine(args, console);
}
