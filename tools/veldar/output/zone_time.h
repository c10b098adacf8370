// Times as they stand in a zone.
#pragma once

#include <cstdint>
#include <string>

#include "tools/libveldar/formats/log_time.h"

namespace veldar::tool {

// RFC 3339, "2015-05-17T10:00:00+02:00", with "Z" for no offset and the fraction of a second when there is one.
std::string zone_time_text(int64_t epoch_ns, const log_zone& zone);
// By strftime.
std::string zone_time_format(int64_t epoch_ns, const log_zone& zone, const char* format);

}  // namespace veldar::tool
