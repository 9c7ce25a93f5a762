#pragma once

#include <string>
#include <vector>

#include "examples/modeld/service/Log.h"
#include "mom/mom.h"

namespace modeld {

/// What the command line asks for.
struct Options {
    std::string database = "modeld.db";
    std::vector<std::string> files;
    std::string table = "model";
    std::string key;
    __serv_types service = SERV_MODEL;
    std::string domain = "DEFAULT";
    std::string group;  ///< never empty once the command line is read
    int tier = 1;
    bool standalone = false;  ///< joins no group
    int threads = 2;
    unsigned long sendRate = 100000;
    int watchSource = 5;  ///< seconds, as the next two; 0 for never
    int statistics = 60;
    int checkpoint = 60;
    LogLevel level = LogLevel::Info;
};

/// Reads the command line. When the program should end at once (help, version, invalid arguments),
/// `exitStatus` is what it should end with and the user has been told; else -1.
Options readOptions(int argc, char** argv, int& exitStatus);

}  // namespace modeld
