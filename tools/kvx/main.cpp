#include "tools/kvx/Commands.h"

int main(int argc, char** argv) {
    return kvx::tool::runCommandLine(argc, argv);
}
