// Windows scalar types the module's interfaces are written in, declared with
// the widths and values <windows.h> gives them, so that the portable code
// never includes <windows.h> (its macros rename functions, and it costs
// every file that sees it). Only the Win32 backend includes <windows.h>
// (platform/windows/Win32.h), and both declarations agree where they meet.
#pragma once

#include <cstdint>

#include "DiagnosticScanner/AgentTypes.h"  // DWORD

// The handle type of windows.h (DECLARE_HANDLE under STRICT).
struct HKEY__;
using HKEY = HKEY__*;

// The predefined hive handles keep their Windows values, (LONG)0x8000000n
// sign-extended as windows.h has them, so that a handle from either
// definition means the same hive. windows.h defines them again; Win32.h
// takes them back first.
#ifndef HKEY_LOCAL_MACHINE
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<std::intptr_t>(-0x7FFFFFFE)))
#endif
#ifndef HKEY_USERS
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<std::intptr_t>(-0x7FFFFFFD)))
#endif
