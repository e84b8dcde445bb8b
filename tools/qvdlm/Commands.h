// The qvdlm commands. Each answers the process exit status.
#pragma once

#include "CommandLine.h"
#include "Console.h"

namespace qvcli {

namespace exitcode {
constexpr int Ok = 0;
constexpr int Failed = 1;
constexpr int Usage = 2;
constexpr int Stopped = 3;
} // namespace exitcode

// Parses args (without the program name) and runs the command they name; answers the exit status.
int runCommandLine(const std::vector<std::wstring>& args, Console& console);

int runGet(const Options& options, Console& console);
int runResume(const Options& options, Console& console);
int runList(const Options& options, Console& console);
int runRemove(const Options& options, Console& console);
int runProxy(const Options& options, Console& console);
int runToken(const Options& options, Console& console);

struct TransferSummary;
// The exit status after a run of downloads: 0 only when all of them completed.
int exitStatusFor(const TransferSummary& summary, size_t downloads);

} // namespace qvcli
