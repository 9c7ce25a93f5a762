#pragma once

#include <string>
#include <vector>

#include "examples/modeld/service/Log.h"
#include "mom/mom.h"

namespace modeld {

/// The options of the command line.
struct Options {
    std::string database = "modeld.db";
    std::vector<std::string> files;
    std::string table = "model";
    std::string key;
    __serv_types service = SERV_MODEL;
    std::string domain = "DEFAULT";
    std::string group;  ///< never empty after `readOptions`
    int tier = 1;
    bool standalone = false;  ///< joins no group
    int threads = 2;
    unsigned long sendRate = 100000;
    int watchSource = 5;  ///< seconds, like the next two; 0 for never
    int statistics = 60;
    int checkpoint = 60;
    LogLevel level = LogLevel::Info;
};

/// Reads the command line. Sets `exitStatus` to -1, or to the exit status when the program is to
/// end (help, version, invalid arguments); all output has then been printed.
Options readOptions(int argc, char** argv, int& exitStatus);

}  // namespace modeld
