// The qvdlm commands. Each answers the process exit status.
#pragma once

#include "CommandLine.h"
#include "Console.h"
#include "Failure.h"

namespace qvcli {

// Parses args (without the program name) and runs the command they name; answers the exit status.
int runCommandLine(const std::vector<std::wstring>& args, Console& console);

int runGet(const Options& options, Console& console);
int runResume(const Options& options, Console& console);
int runList(const Options& options, Console& console);
int runRemove(const Options& options, Console& console);
int runProxy(const Options& options, Console& console);
int runToken(const Options& options, Console& console);

struct TransferSummary;
// The exit status after a run of downloads: 0 only when all of them completed, else the status of the
// first failure, else 3 (stopped).
int exitStatusFor(const TransferSummary& summary, size_t downloads);

// The client's default bytes between checkpoints (the library's own default is far larger).
constexpr uint64_t kDefaultSaveInterval = 64ull << 20;

} // namespace qvcli
