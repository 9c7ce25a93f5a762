#include "examples/modeld/service/Options.h"
#include "examples/modeld/service/Program.h"
#include "platform/File.h"
#include "platform/Memory.h"

int main(int argc, char** argv) {
    kvx::platform::reserveStandardStreams();
    kvx::platform::keepFreedMemory();
    int exitStatus = -1;
    const modeld::Options options = modeld::readOptions(argc, argv, exitStatus);
    return exitStatus >= 0 ? exitStatus : modeld::run(options);
}
