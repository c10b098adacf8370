// The engine's start-up call.
#pragma once

namespace veldar {

// Prepares the text that every lock file of this process carries. Called once, before other threads use the engine; 0.
int st_init(const char* program_name);

}  // namespace veldar
