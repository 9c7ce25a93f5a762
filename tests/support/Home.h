#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {

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
    /// How many files and directories are below it.
    long files() const {
        return std::distance(std::filesystem::recursive_directory_iterator(path()), {});
    }

  private:
    TemporaryDirectory directory_;
    EnvironmentVariable kvxHome_{"KVX_HOME", directory_.path()};
    EnvironmentVariable vekHome_{"VEK_HOME", directory_.path()};
};

}  // namespace kvx::test
