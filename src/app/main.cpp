#include <iostream>

#include "app/Cli.h"
#include "app/DesktopApplication.h"

int main(int argc, char** argv) {
    std::vector<std::string> args(argv, argv + argc);
    return sprelio::app::runCommandLine(args, std::cout, std::cerr,
                                        [&] { return sprelio::app::runDesktopApplication(argc, argv); });
}
