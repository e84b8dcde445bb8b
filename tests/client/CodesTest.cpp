// The code mappings that clients and the manager share, through QvDLM.dll.
#include <gtest/gtest.h>

#include "QvDLM.h"

using namespace qvdlm;

TEST(Codes, ErrorBitsAndTheManagersReadingOfMessages)
{
    for (const auto& [code, error] : {std::pair{0x25000007u, true}, {0x0F000000u, true}, {0x28000011u, true}, {0x20000007u, false}, {0xF0FFFFFFu, false}, {0u, false}})
        EXPECT_EQ(Download::isErrorCode(code), error) << std::hex << code; // bits 24 to 27
    for (const auto& [message, code] : {std::pair{1004u, 0x25000003u}, {1005u, 0x25000008u}, {1007u, 0x25000002u}, {1008u, 0x25000004u},
                                        {1017u, 0x2500000Au}, {1006u, 0u}, {1009u, 0u}})
        EXPECT_EQ(statusForMessage(message), code) << message;
    QvDLM::destroy(static_cast<DownloadMgr*>(nullptr)); // the factory ignores null
    QvDLM::destroy(static_cast<Log*>(nullptr));
}

TEST(Codes, ValidationResultsGiveStatusMessageAndEventKind)
{
    const struct {
        uint32_t result, status, message, kind;
        bool ok;
    } cases[] = {
        {0, 0, 0, 0, true}, {2, 0x25000001, 1000, 2, true}, {17, 0x25000002, 1007, 2, true},
        {18, 0x25000002, 1004, 2, true}, // the deliberate pairing of a status with another message
        {19, 0x25000004, 1008, 2, true}, {20, 0x25000009, 1016, 6, false}, {4, 0x250000FF, 1020, 2, true}, {99, 0x250000FF, 1020, 2, true},
    };
    for (const auto& c : cases) {
        const ValidationOutcome o = validationOutcome(c.result);
        EXPECT_EQ(o.status, c.status) << c.result;
        if (c.result) {
            EXPECT_EQ(o.message * 10 + o.eventKind, c.message * 10 + c.kind) << c.result;
        }
        EXPECT_EQ(o.result, c.ok) << c.result;
    }
}
