// The one export macro of the module. Symbols are hidden by default; what the
// agent's service may call is marked DIAGSCANNER_API.
#pragma once

#if defined(_WIN32)
#if defined(DIAGSCANNER_STATIC)
#define DIAGSCANNER_API
#elif defined(DIAGSCANNER_EXPORTS)
#define DIAGSCANNER_API __declspec(dllexport)
#else
#define DIAGSCANNER_API __declspec(dllimport)
#endif
#else
#define DIAGSCANNER_API __attribute__((visibility("default")))
#endif
