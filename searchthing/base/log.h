// The engine's diagnostic log: printf-style lines to standard error, silent until stSetupLogger (st_init.h) turns it
// on.
#pragma once

namespace veldar {

// Writes a line whose format begins with its level word, padded to six characters ("DEBUG ", "INFO  ", "WARN  " or
// "ERROR "), and ends with its own newline. A line with debug flag 1 needs verbose; one with debug flag 0 verbose or
// log2veldar. Without log2veldar the line is preceded by "tm= %lu " with the seconds since the epoch.
void _log(int debug, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace veldar
