// The engine's start-up calls, made before other threads use the engine.
#pragma once

#include "searchthing/base/language.h"

namespace veldar {

// Prepares the text that every lock file of this process carries. Called once; 0.
int st_init(const char* program_name);

// Turns the diagnostic log on standard error on: `log2veldar` its ordinary lines, `verbose` these and those for
// debugging, each after the time unless log2veldar is set. Both flags belong to the process; verbose prints them.
void stSetupLogger(int verbose, int log2veldar);

}  // namespace veldar
