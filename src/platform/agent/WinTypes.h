// Windows scalar types the module's interfaces are written in. On Windows they
// come from <windows.h>; elsewhere they are declared with the same widths.
#pragma once

#include "DiagnosticScanner/AgentTypes.h"  // DWORD

#ifndef _WIN32
#include <cstdint>

using HKEY = struct HKEY__*;

// The predefined hive handles keep their Windows values so that code and logs
// read the same on both systems.
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002u)))
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000003u)))
#endif
