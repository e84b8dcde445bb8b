// States, status codes, status messages, event kinds and control commands: the numbers that cross the
// library's boundary, defined once. Code layout: the top byte is the family; bits 24..27 are non-zero
// exactly for error codes.
#pragma once

#include <cstdint>

#include "QvDLMExport.h"

namespace qvdlm {

// Download states. 0 is a state too: a completed download has state 0.
namespace state {
constexpr uint32_t Completed = 0;
constexpr uint32_t Pending = 0x20000000;
constexpr uint32_t Init = 0x20000001;
constexpr uint32_t Play = 0x20000002;
constexpr uint32_t Paused = 0x20000003;
constexpr uint32_t Completing = 0x20000004;
constexpr uint32_t Exiting = 0x20000005;
constexpr uint32_t Aborting = 0x20000006;
constexpr uint32_t Aborted = 0x20000007;
constexpr uint32_t Removed = 0x20000008;
} // namespace state

// Status codes of a download as a whole (family 0x25).
namespace status {
constexpr uint32_t None = 0;
constexpr uint32_t OpenFailure = 0x25000001;
constexpr uint32_t ServerNotResponding = 0x25000002;
constexpr uint32_t NetworkDisconnected = 0x25000003;
constexpr uint32_t NetworkError = 0x25000004;
constexpr uint32_t OutOfDiskSpace = 0x25000005;
constexpr uint32_t SetupFailed = 0x25000007;
constexpr uint32_t NetworkReconnecting = 0x25000008;
constexpr uint32_t ProxyAuthRequired = 0x25000009;
constexpr uint32_t RestoreFailed = 0x2500000A;
constexpr uint32_t NewerRequestVersion = 0x2500000B;
constexpr uint32_t GeneralError = 0x250000FF;
} // namespace status

// Error families of the pipeline stages.
constexpr uint32_t HttpErrorBase = 0x26000000;
constexpr uint32_t TarErrorBase = 0x28000000;
constexpr uint32_t ErrorCodeMask = 0x0F000000;

// Errors of the tar stage, left in its last status (the download's stream error). An entry that would
// land outside the destination folder is refused with the code of its kind.
namespace tarerror {
constexpr uint32_t FileOpen = 0x28000002;      // a file's path could not be prepared or the file opened
constexpr uint32_t HardLink = 0x28000003;      // a hard link could not be made
constexpr uint32_t SymbolicLink = 0x28000004;  // a symbolic link could not be made
constexpr uint32_t Folder = 0x28000005;        // a folder could not be created
constexpr uint32_t ShortWrite = 0x28000006;    // file data could not be written completely
constexpr uint32_t BadHeader = 0x28000007;     // a block that should be a header is not one: not a tar stream
constexpr uint32_t Truncated = 0x28000008;     // the stream ended inside an entry
constexpr uint32_t NameConversion = 0x28000011; // a name or link name could not be converted from UTF-8
} // namespace tarerror

// Status message numbers carried by events of kinds 2 and 6; texts via messageText().
namespace msg {
constexpr uint32_t OpenFailure = 1000;
constexpr uint32_t DownloadStarted = 1001;
constexpr uint32_t DecompressStarted = 1002;
constexpr uint32_t UnpackageStarted = 1003;
constexpr uint32_t NetworkDisconnected = 1004;
constexpr uint32_t NetworkConnecting = 1005;
constexpr uint32_t NetworkConnected = 1006;
constexpr uint32_t ServerNotResponse = 1007;
constexpr uint32_t NetworkError = 1008;
constexpr uint32_t DownloadCompleted = 1009;
constexpr uint32_t DecompressCompleted = 1010;
constexpr uint32_t UnpackageCompleted = 1011;
constexpr uint32_t DecompressAborted = 1012;
constexpr uint32_t OutOfDiskSpace = 1013;
constexpr uint32_t DecompressFailed = 1014;
constexpr uint32_t UnpackageFailed = 1015;
constexpr uint32_t ProxyNeedAuthentication = 1016;
constexpr uint32_t RestoreFailed = 1017;
constexpr uint32_t GeneralError = 1020;
constexpr uint32_t AkamaiFallback = 1021;
constexpr uint32_t First = 1000;
constexpr uint32_t Last = 1021;
} // namespace msg

// Kinds of EventRecord.
namespace event {
constexpr uint32_t Progress = 0;
constexpr uint32_t StateChange = 1;
constexpr uint32_t StatusMessage = 2;
constexpr uint32_t Information = 3;
constexpr uint32_t Debug = 4;
constexpr uint32_t Warning = 5;
constexpr uint32_t Error = 6;
} // namespace event

// Commands posted to a download's control thread as thread messages.
namespace command {
constexpr uint32_t Start = 32769;
constexpr uint32_t Pause = 32770;
constexpr uint32_t Resume = 32771;
constexpr uint32_t AbortDiscard = 32772;
constexpr uint32_t Reinit = 32773;
constexpr uint32_t Remove = 32774;
constexpr uint32_t StopKeep = 32775;
} // namespace command

// Results of URL validation (validateUrl) that have a meaning of their own.
namespace validation {
constexpr uint32_t Ok = 0;
constexpr uint32_t AlreadyAdded = 1;
constexpr uint32_t OpenFailure = 2;
constexpr uint32_t Forbidden = 4;
constexpr uint32_t ServerNotResponding = 17;
constexpr uint32_t NetworkDisconnected = 18;
constexpr uint32_t NetworkError = 19;
constexpr uint32_t ProxyAuthRequired = 20;
constexpr uint32_t NewerRequestVersion = 21;
} // namespace validation

// What applyValidationResult makes of a URL-validation result.
struct ValidationOutcome {
    uint32_t status;    // status code to store (0: none)
    uint32_t message;   // status message to publish (0: none)
    uint32_t eventKind; // kind of the event carrying the message
    bool result;        // false only when a proxy needs authentication
};

// True exactly for error codes (bits 24..27 not all zero).
constexpr bool isErrorCode(uint32_t code) { return (code & ErrorCodeMask) != 0; }

// An event value stands for a text pointer when its bits 16..31 are not all zero; otherwise its
// low 16 bits are a message number.
constexpr bool eventValueIsText(uint64_t value) { return (value & 0xFFFF0000u) != 0; }

// The text of a status message number, or null for a number without text.
QVDLM_API const wchar_t* messageText(uint32_t message);

// The log name of a state ("download play"), or null for an unknown value.
QVDLM_API const wchar_t* stateName(uint32_t state);

// The status message that reports a status code: 0 for no error, 1020 for codes without a message
// of their own.
QVDLM_API uint32_t messageForStatus(uint32_t status);

// The message with which a state change is logged as an error: 0 when the state is logged plainly.
// Paused counts "network reconnecting" as no error; aborted reports it as "network connecting".
QVDLM_API uint32_t messageForStateStatus(uint32_t state, uint32_t status);

// The status code the manager sets when a download reports a status message (0: no change).
QVDLM_API uint32_t statusForMessage(uint32_t message);

QVDLM_API ValidationOutcome validationOutcome(uint32_t result);

} // namespace qvdlm
