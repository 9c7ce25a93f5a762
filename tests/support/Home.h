#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {

/// Sets an environment variable for as long as it lives.
class EnvironmentVariable {
  public:
    EnvironmentVariable(std::string name, const std::string& value) : name_(std::move(name)) {
        if (const char* const before = std::getenv(name_.c_str())) before_ = before;
        setenv(name_.c_str(), value.c_str(), 1);
    }
    ~EnvironmentVariable() {
        if (before_.empty()) {
            unsetenv(name_.c_str());
        } else {
            setenv(name_.c_str(), before_.c_str(), 1);
        }
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  private:
    std::string name_;
    std::string before_;
};

/// A home directory of the test's own, whose daemon configuration file says where the bus is.
///
/// The daemon "-" is none at all: sessions open, "_RV" subjects are heard, everything else on the
/// bus fails.
class Home {
  public:
    explicit Home(const std::string& daemon) {
        std::filesystem::create_directories(directory_.file("etc"));
        std::filesystem::create_directories(directory_.file("bin"));
        writeConfiguration("rendezvous session = { \"daemon\" = \"" + daemon + "\" };\n");
    }

    void writeConfiguration(const std::string& text) {
        std::ofstream(directory_.file("etc/Calvorine.rvd.cfg")) << text;
    }

    /// The path of a file below the home.
    std::string file(const std::string& name) const { return directory_.file(name); }
    const std::string& path() const { return directory_.path(); }

  private:
    TemporaryDirectory directory_;
    EnvironmentVariable kvxHome_{"KVX_HOME", directory_.path()};
    EnvironmentVariable vekHome_{"VEK_HOME", directory_.path()};
};

}  // namespace kvx::test
