// Between the calls that are led through faults.cc and the log of them.
#pragma once

#include "tests/support/file_log.h"

namespace veldar {

bool file_log_is_on();
void file_log_add(file_op op);

}  // namespace veldar
