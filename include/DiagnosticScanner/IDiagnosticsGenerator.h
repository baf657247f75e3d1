// A source of health tests for one component of the device.
#pragma once

#include <string>
#include <vector>

#include "DiagnosticScanner/Export.h"
#include "DiagnosticScanner/Tests.h"

namespace zep::diagnostics {

class DIAGSCANNER_API IDiagnosticsGenerator {
public:
    // Runs the generator's tests and hands their outcomes to `tests`. May
    // throw; the caller turns that into an error result.
    virtual void RunTests(std::vector<Tests>& tests) = 0;
    // The component's identifier, as written into its result document.
    virtual std::wstring GetComponentId() = 0;
    // The component's display name; it also names the component's folder.
    virtual std::wstring GetFriendlyName() = 0;

protected:
    // Generators are owned through shared pointers made from the concrete
    // type; the interface is never deleted through, hence no virtual destructor.
    ~IDiagnosticsGenerator() = default;
};

}  // namespace zep::diagnostics
