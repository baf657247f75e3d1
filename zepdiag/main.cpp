#include <iostream>

#include "Zepdiag.h"

int main(int argc, char** argv) { return RunZepdiag(argc, argv, std::cout, std::cerr); }
