#pragma once

#include <string>

#include "foundation/CVekAtom.h"

/// Where the system is installed and what this host is called. Any thread, as long as nobody
/// changes the process environment meanwhile.
class KVX_API CVekEnv {
  public:
    /// Reads the environment once; later changes have no effect on this object.
    CVekEnv();

    /// The system's home directory: `$KVX_HOME`, else the installation prefix, which follows an
    /// installed tree that is moved. Owned by this object.
    const char* REHome() const { return m_home.c_str(); }

    /// The home directory of the programs: `$VEK_HOME`, else what `REHome` of a new object would
    /// return; read at each call. The result must not be deleted and stays valid until the process
    /// ends.
    static const CVekAtom* REVekHome();

    /// This host's name as the system reports it, else empty. Owned by this object.
    const char* RELocalHost() const { return m_localHost.c_str(); }

  private:
    std::string m_home;
    std::string m_localHost;
};
