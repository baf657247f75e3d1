#include <iostream>

#include "Zepdiag.h"

#ifdef _WIN32
#include <string>
#include <vector>

#include "WindowsHost.h"

int main() {
    std::vector<std::string> arguments = zepdiag::Utf8Arguments();
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return RunZepdiag(static_cast<int>(arguments.size()), argv.data(), std::cout, std::cerr);
}
#else
int main(int argc, char** argv) { return RunZepdiag(argc, argv, std::cout, std::cerr); }
#endif
