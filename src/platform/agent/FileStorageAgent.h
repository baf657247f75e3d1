// The agent's file storage agent and critical-event logger as the module
// sees them.
#pragma once

#include <string>

#include "DiagnosticScanner/AgentTypes.h"

class CriticalEventLogger {
public:
    static void Log(int eventId, std::wstring text);
};
