#include "Commands.h"

namespace qvcli {

int runCommandLine(const std::vector<std::wstring>& args, Console& console)
{
    const ParseResult parsed = parseCommandLine(args);
    if (!parsed.ok) {
        console.error(parsed.error);
        console.error(L"\"qvdlm help\" lists the commands");
        return exitcode::Usage;
    }
    const Options& o = parsed.options;
    switch (o.command) {
    case Command::Help: console.line(usageText()); return exitcode::Ok;
    case Command::Version: console.line(L"qvdlm " QVDLM_VERSION); return exitcode::Ok;
    case Command::Get: return runGet(o, console);
    case Command::Resume: return runResume(o, console);
    case Command::List: return runList(o, console);
    case Command::Remove: return runRemove(o, console);
    case Command::Proxy: return runProxy(o, console);
    case Command::Token: return runToken(o, console);
    }
    return exitcode::Usage;
}

} // namespace qvcli
