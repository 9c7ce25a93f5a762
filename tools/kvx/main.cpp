#include "platform/Memory.h"
#include "tools/bus/Program.h"
#include "tools/kvx/Commands.h"

int main(int argc, char** argv) {
    kvx::platform::keepFreedMemory();
    return kvx::bus::runProgram([&] { return kvx::tool::runCommandLine(argc, argv); });
}
