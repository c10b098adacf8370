#include "searchthing/base/st_init.h"

#include "libzero/filemutex.h"

namespace veldar {

int st_init(const char* program_name) {
    filemutex_init_contents(program_name);
    return 0;
}

}  // namespace veldar
