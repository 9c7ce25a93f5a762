#pragma once

#include <functional>
#include <vector>

class CVekRvdCfgParser;
class CVekVBList;

/// What the grammar, its scanner and `CVekRvdCfgParser` say to one another. One scanner for the
/// whole process: whoever has a `Scan` holds a lock.
namespace kvx::config {

/// What a parse has found, in the order of the text: blocks to apply and errors to report. Both run
/// code of the program (output streams, error handlers), and so are done when the parse is over.
using Finding = std::function<void(CVekRvdCfgParser& parser)>;
using Findings = std::vector<Finding>;

/// Applies `items`, which it takes over, when `host` is this one; null is every host.
Finding block(const char* host, CVekVBList* items);

/// Says on standard output what is wrong at a line.
Finding parserError(const char* message, int line);

/// Points the scanner's input at a text and starts counting lines at 1. What an earlier parse had
/// read and not used comes first.
class Scan {
  public:
    explicit Scan(const char* text);

    /// Drops what the scanner has not read yet; and also what it has read and not used, unless the
    /// parse came to its end.
    ~Scan();
    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    /// The parse came to its end, early or not.
    void finish() { finished_ = true; }

  private:
    bool finished_ = false;
};

/// The line that the scanner has reached. Newlines inside quoted strings do not count.
int currentLine();

}  // namespace kvx::config

/// The generated scanner: the next token's code; 0 or less at the end.
int VekRvdCfglex();

/// The generated parser: 0, or another value when it gave up.
int VekRvdCfgparse(kvx::config::Findings* findings);
