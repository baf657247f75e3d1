// One health test's outcome.
#pragma once

#include <string>

#include "DiagnosticScanner/Export.h"

namespace zep::diagnostics {

// A test has failed exactly when `actual` differs from `expected`.
class DIAGSCANNER_API Tests {
public:
    std::wstring name;      // such as "device_registered"
    std::wstring id;        // fixed lower-case GUID text without braces
    std::wstring expected;  // the value that means the test passed
    std::wstring actual;    // the value the test found
};

}  // namespace zep::diagnostics
