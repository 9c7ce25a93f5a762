#pragma once

#include <string>

#include "foundation/CVekAtom.h"
#include "platform/Export.h"

/// Reader of the daemon configuration file: which bus service, network and daemon a process uses,
/// and on which port its local agent listens.
///
/// The file is a sequence of blocks such as
///
///     -- daemon settings
///     rendezvous session = { "service" = "7500", "daemon" = "tcp:7500" };
///     rendezvous session for host "localhost" = { 'rva' = '7600' };
///
/// A block without a host clause applies everywhere, one with a host clause only on that host or
/// when the host is "localhost". Blocks are applied in file order, so the last applicable block
/// that names a key wins. A syntax error drops only the block that contains it; it is written to
/// standard output with its line. An unknown key is written to standard error and ignored.
///
/// The scanner's position is process-wide: a byte of value 128 or more outside a quoted string ends
/// a parse early, and what the scanner had read but not used (at most one piece of 8,192 bytes) is
/// read by the next parse, of any parser, before its own text. A process-wide lock serialises
/// parses; use a parser object on one thread at a time. The lock is held while a text is read, not
/// while blocks are applied and errors are written: an output stream may throw, which is ignored,
/// and may itself parse. Only an error handler called for exhausted memory runs under the lock, and
/// must not parse.
///
/// A copy shares the buffer and the four values with its source: it must not be destroyed while the
/// source is in use, nor the source while the copy is.
class KVX_API CVekRvdCfgParser {
  public:
    /// No text and no values.
    CVekRvdCfgParser();

    /// Copies `text`; null means none. A failed copy is reported as -220553.
    explicit CVekRvdCfgParser(char* text);

    CVekRvdCfgParser(const CVekRvdCfgParser&) = default;
    CVekRvdCfgParser& operator=(const CVekRvdCfgParser&) = default;

    /// Frees the text and the four values.
    virtual ~CVekRvdCfgParser();

    /// Replaces the text by a copy of `text`; null means none. Returns 1, or -220553 when the copy
    /// failed; there is then no text.
    int RRCPSetParseBuffer(char* text);

    /// The text to parse, owned by the parser; null when there is none.
    char* RRCPGetParseBuffer();

    /// Parses the text up to its first NUL and applies the blocks meant for this host. Values that
    /// no applicable block names are unchanged. Returns 1 (also for a text with syntax errors),
    /// -220552 when there is no text, -220551 when the parser gave up.
    int RRCPParseRvdCfg();

    /// Loads the file as the text, and parses it. Returns what `RRCPParseRvdCfg` does; -220552 for
    /// a null name and -220549 for a file that cannot be read, with the parser unchanged.
    int RRCPParseFromFilename(char* fileName);

    /// The first syntax error of the last parse, "LINE: TEXT", or "FILE:LINE: TEXT" of a file;
    /// empty when there was none. Valid until the next parse.
    const char* RRCPGetError() const;

    /// Each stores a new copy of `value` in place of the previous one and returns 1; a null `value`
    /// changes nothing and returns -220552.
    int RRCPSetService(const CVekAtom* value);
    int RRCPSetNetwork(const CVekAtom* value);
    int RRCPSetDaemon(const CVekAtom* value);
    int RRCPSetRVAPort(const CVekAtom* value);

    /// The values, owned by the parser; null until a block has set them.
    CVekAtom* RRCPGetService();
    CVekAtom* RRCPGetNetwork();
    CVekAtom* RRCPGetDaemon();
    CVekAtom* RRCPGetRVAPort();

  private:
    char* m_parseBuffer = nullptr;
    CVekAtom* m_service = nullptr;
    CVekAtom* m_network = nullptr;
    CVekAtom* m_daemon = nullptr;
    CVekAtom* m_rvaPort = nullptr;
    std::string m_error;
};

/// The path of the daemon configuration file: the home directory of the environment followed
/// directly by "/etc/Calvorine.rvd.cfg". The caller frees the result with `free`.
KVX_API char* RvdCfgFileName();
