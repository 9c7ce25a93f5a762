#pragma once

#include <functional>
#include <vector>

class CVekRvdCfgParser;
class CVekVBList;

/// The interface between the grammar, its scanner and `CVekRvdCfgParser`. The scanner is
/// process-wide: a `Scan` requires the parse lock.
namespace kvx::config {

/// The results of a parse, in text order: blocks to apply and errors to report. Both run code of
/// the program (output streams, error handlers), and so are applied after the parse.
struct Finding {
    std::function<void(CVekRvdCfgParser& parser)> act;
    const char* error = nullptr;  ///< null for a block
    int line = 0;                 ///< of the error
};
using Findings = std::vector<Finding>;

/// Applies `items`, of which it takes ownership, when `host` is this host; null is every host.
Finding block(const char* host, CVekVBList* items);

/// Writes an error and its line to standard output.
Finding parserError(const char* message, int line);

/// Sets the scanner's input to a text and the line number to 1. Input that an earlier parse had
/// read and not used comes first.
class Scan {
  public:
    explicit Scan(const char* text);

    /// Drops unread input; and also input read and not used, unless `finish` was called.
    ~Scan();
    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    /// Marks the parse as ended, early or not.
    void finish() { finished_ = true; }

  private:
    bool finished_ = false;
};

/// The current line of the scanner. Newlines inside quoted strings do not count.
int currentLine();

}  // namespace kvx::config

/// The generated scanner: the next token's code; 0 or less at the end.
int VekRvdCfglex();

/// The generated parser: returns 0, or another value when it gave up.
int VekRvdCfgparse(kvx::config::Findings* findings);
