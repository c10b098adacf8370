#include "interrupt_probe.h"

SQLITE_EXTENSION_INIT3

namespace veldar::sql {

interrupt_probe::~interrupt_probe() {
    sqlite3_finalize(statement_);
}

veldar_observer interrupt_probe::observer() {
    return {.size = sizeof(veldar_observer), .context = this, .message = nullptr, .progress = nullptr, .stop = stops};
}

int interrupt_probe::stops(void* context) {
    auto* const probe = static_cast<interrupt_probe*>(context);
    int status = SQLITE_OK;
    if (probe->statement_ == nullptr) {
        status = sqlite3_prepare_v3(probe->db_, "SELECT 1", -1, 0, &probe->statement_, nullptr);
    }
    if (status == SQLITE_OK) {
        status = sqlite3_step(probe->statement_);
        sqlite3_reset(probe->statement_);
    }
    return status == SQLITE_INTERRUPT ? 1 : 0;
}

}  // namespace veldar::sql
