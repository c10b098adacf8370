#include "tools/veldar/commands/log_options.h"

namespace veldar::tool {

void add_log_options(const command& to, load_options* options) {
    to.text("--format", &options->format,
            "Take the lines for this format: " + format_names() + ", or one of --formats");
    to.text("--formats", &options->formats_file,
            "A file of formats of your own, instead of ~/.config/veldar/formats; see docs/loading.md");
    to.text("--tz", &options->zone,
            "Zone of times without one, instead of this machine's: UTC, +02:00, Europe/Berlin ...")
        .checked([](const std::string& name) {
            log_zone zone;
            return log_zone_from_name(name, &zone) ? std::string() : "unknown time zone " + name;
        });
    to.text("--time-format", &options->time_format,
            "How lines say their time, wherever they do, such as \"%d/%m/%Y %T\": "
            "%Y %y %m %d %b %a %H %M %S %p %f %z %Z as usual, %T and %R with fraction and zone, %s seconds since 1970")
        .checked([](const std::string& pattern) {
            time_place place;
            const char* const fault = time_place_from_pattern(pattern, &place);
            return fault == nullptr ? std::string() : pattern + " " + fault;
        });
    to.text("--time-field", &options->time_field,
            "The field that says the time, of JSON, logfmt, CSV or any name=value; --time-format may say its shape")
        .checked([](const std::string& name) {
            const bool line = name.find_first_of("\t\n") != std::string::npos;
            return line ? "a field's name has no tabs or line ends" : std::string();
        });
    to.text("--date-order", &options->date_order,
            "Order of dates such as 01/02/2026; the values tell it where they can")
        .one_of({"dmy", "mdy", "ymd"});
    to.number("--year", &options->year, 1970, 2037, "Year of the first line, for times without a year");
    to.text("--host", &options->host, "The events' host, instead of the log's or this machine's");
    to.text("--sourcetype", &options->sourcetype, "The events' sourcetype, instead of the format's name");
    to.flag("--parts", &options->parts, "Index the parts of words too: exception of NullPointerException");
}

}  // namespace veldar::tool
