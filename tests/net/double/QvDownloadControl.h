// How a test drives the NetSession double (QvDownload.dll): C functions that the test resolves with
// GetProcAddress on the same module the library loads.
//
// Script: sessions separated by ';', each a list of key=value with comma-separated answers, the last
// answer repeating: create (0: the create call answers null), error (getLastError), install
// (needsInstall), resume, stop, pause, state (getState). Answers are decimal; -1 stands for all ones.
// Each create call takes the next session of the script; the last one repeats. Unset keys answer 0 and
// create answers a session.
//
// Journal: one line per call, "#<n> <operation> [arguments]" for the n-th create call, and
// "serve <origin URL> <range>" / "origin <target> <range>" for requests to the two servers.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
using QvdScriptFn = void (*)(const char* script);
using QvdResetFn = void (*)();  // journal, script and session numbers
using QvdClearJournalFn = void (*)();
using QvdJournalFn = size_t (*)(char* buffer, size_t capacity);
using QvdLiveSessionsFn = int (*)();
using QvdStartServerFn = int (*)(const wchar_t* root, uint16_t port);
using QvdSetFailingFn = void (*)(int failing); // 0 serves, 1 answers 503, 2 cuts every body short
using QvdStopServersFn = void (*)();
}
