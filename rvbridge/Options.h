#pragma once

#include <optional>
#include <string>
#include <vector>

#include "rv/message/SubjectView.h"
#include "rvbridge/Engine.h"

namespace kvx::bridge {

struct SpaceName {
    std::string service;
    std::string network;
    friend bool operator==(const SpaceName&, const SpaceName&) = default;
};

struct Options {
    EngineSettings engine;
    std::string host;    ///< this host's name among the others
    std::string daemon;  ///< "tcp:[host:]port" or "unix:/path"
    std::vector<SpaceName> spaces;
    std::vector<Subject> exports;  ///< empty: everything
    std::vector<Subject> imports;  ///< empty: everything
    bool isVerbose = false;
    std::string misread;  ///< what is wrong in the configuration file, "PATH:LINE: WHY"; or empty
};

/// The result of parsing a command line: options to run with, or the exit status to end with (0
/// after `--help` and `--version`, 2 for an invalid command line). All output has been printed.
struct CommandLine {
    Options options;
    std::optional<int> exitStatus;
};

/// Options may have one dash or two. What is not given comes from the configuration file.
[[nodiscard]] CommandLine parseCommandLine(int argc, const char* const* argv);

/// `text` without user, password and token, for people to read.
[[nodiscard]] std::string withoutSecrets(const std::string& text);

}  // namespace kvx::bridge
