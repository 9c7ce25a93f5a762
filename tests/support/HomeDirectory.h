#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {

/// A home directory of the test's own, whose configuration file names one daemon. It is the home of
/// this process, and of the children it starts, while the object lives.
class HomeDirectory {
  public:
    /// `daemon` is the daemon text, such as "tcp:127.0.0.1:7700"; "-" is no daemon.
    explicit HomeDirectory(const std::string& daemon) {
        std::filesystem::create_directory(directory_.file("etc"));
        std::ofstream(directory_.file("etc/Calvorine.rvd.cfg"))
            << "rendezvous session = { 'daemon' = '" << daemon << "' };\n";
        setenv("KVX_HOME", directory_.path().c_str(), 1);
    }
    ~HomeDirectory() { unsetenv("KVX_HOME"); }
    HomeDirectory(const HomeDirectory&) = delete;
    HomeDirectory& operator=(const HomeDirectory&) = delete;

    std::string variable() const { return "KVX_HOME=" + directory_.path(); }

  private:
    TemporaryDirectory directory_;
};

}  // namespace kvx::test
