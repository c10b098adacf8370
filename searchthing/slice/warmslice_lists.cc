#include "searchthing/slice/warmslice_lists.h"

#include "libzero/assertions.h"

namespace veldar {

int _init_reader(plist_reader* reader, WARM* warm, uint64_t span, st_query_info_t* stats, warm_rc_t* rc) {
    ST_ASSERT(warm != nullptr);
    return plist_reader_open(reader, {warm->fd.get(), warm->body, warm->plo, warm->postings_base, warm->plo_last}, span,
                             stats, rc);
}

}  // namespace veldar
