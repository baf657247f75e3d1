// Programs built beside the test programs (the Windows tests' child
// processes, the demo plug-in).
#pragma once

#include <filesystem>
#include <string>

namespace zep::testing {

// `name` (".exe" added on Windows) in the folder of the running test program.
std::filesystem::path ProgramBesideTests(const std::string& name);

}  // namespace zep::testing
