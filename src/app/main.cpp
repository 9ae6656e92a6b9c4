#include <iostream>

#include "app/Cli.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv, argv + argc);
    return sprelio::app::runCommandLine(args, std::cout, std::cerr);
}
