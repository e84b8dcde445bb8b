// A download log: writes a UTF-16 line for every event it receives.
#pragma once

#include "EventSubscriber.h"
#include "QvDLMExport.h"

class QVDLM_API Log : public EventSubscriber {
public:
    virtual bool open(const wchar_t* path) = 0;

    Log(const Log&) = default;
    Log& operator=(const Log&) = default;

protected:
    friend class QvDLM;
    Log() = default;
    virtual ~Log() = default;
};
