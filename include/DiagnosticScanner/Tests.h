// One health test's outcome.
#pragma once

#include <string>

#include "DiagnosticScanner/Export.h"

namespace zep::diagnostics {

// A test has failed exactly when `actual` differs from `expected`. Its
// construction and assignment are defined in the library, which exports them.
class DIAGSCANNER_API Tests {
public:
    Tests();
    Tests(const Tests&);
    Tests(Tests&&) noexcept;
    Tests& operator=(const Tests&);
    Tests& operator=(Tests&&) noexcept;
    ~Tests();

    std::wstring name;      // such as "device_registered"
    std::wstring id;        // fixed lower-case GUID text without braces
    std::wstring expected;  // the value that means the test passed
    std::wstring actual;    // the value the test found
};

}  // namespace zep::diagnostics
