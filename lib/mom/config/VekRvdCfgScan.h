#pragma once

/// What the grammar, its scanner and `CVekRvdCfgParser` say to one another. One scanner for the
/// whole process: whoever parses holds a lock from `scanFrom` until `scanNothing`.
namespace kvx::config {

/// Points the scanner's input at `text`, which must stay until `scanNothing`, and starts counting
/// lines at 1. What an earlier parse had read and not used comes first.
void scanFrom(const char* text);

/// Drops what the scanner has not read yet.
void scanNothing();

/// The line that the scanner has reached. Newlines inside quoted strings do not count.
int currentLine();

}  // namespace kvx::config

class CVekRvdCfgParser;

/// The generated scanner: the next token's code; 0 or less at the end.
int VekRvdCfglex();

/// The generated parser: 0, or another value when it gave up.
int VekRvdCfgparse(CVekRvdCfgParser* parser);
