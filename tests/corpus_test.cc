// Logs in many formats, written after the formats' documentation, and beside each what its records are: a line for each
// with its time in UTC, the number of its lines and some of its fields, separated by tabs. The first line of NAME.expect
// says when NAME.log was modified, and the zone if one is given.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <sstream>

#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/clock_days.h"
#include "tools/libveldar/load/log_event.h"
#include "tools/libveldar/load/log_form.h"
#include "tools/libveldar/store/record_reader.h"

namespace veldar {

using namespace tool;
namespace {

// "2026-11-22 10:00:00.5"
std::string utc_text(const st_timeval_t& time) {
    const time_t seconds = time.time_s;
    std::tm tm;
    char text[64];
    ::gmtime_r(&seconds, &tm);
    std::strftime(text, sizeof text, "%F %T", &tm);
    if (time.time_ns == 0) return text;
    const size_t size = strlen(text);
    std::snprintf(text + size, sizeof text - size, ".%09u", static_cast<unsigned>(time.time_ns));
    std::string all = text;
    return all.substr(0, all.find_last_not_of('0') + 1);
}

// The expected fields of a record that it has; all of them when it is as it should be.
std::string fields_among(const std::string& wanted, const parsed_line& parsed) {
    std::istringstream fields(wanted);
    std::string field, found;
    while (std::getline(fields, field, '\t')) {
        const bool has = std::any_of(parsed.fields.begin(), parsed.fields.end(), [&](const field_view& one) {
            return std::string(one.name) + "=" + std::string(one.value) == field;
        });
        if (has) found += "\t" + field;
    }
    return found;
}

// What the tool makes of a log, in the form of NAME.expect; the fields are those of `wanted` that are there.
std::vector<std::string> records_of(const std::string& path, const std::string& zone, int64_t modified_s,
                                    const std::vector<std::string>& wanted) {
    std::vector<std::string> all;
    load_options options;
    options.zone = zone;
    log_event_maker maker;
    log_input input;
    record_reader reader;
    std::string error;
    EXPECT_TRUE(log_zone_from_name(zone, &maker.context.zone));
    EXPECT_TRUE(log_input_open(&input, path, &error)) << error;
    maker.context.modified_s = modified_s;
    maker.format = log_form_choose(options, input.head, {}, &maker.context);
    maker.context.boot_s = NO_TIME_SEEN;
    EXPECT_TRUE(clock_days_find(&maker, &input, 0, &error) && log_input_seek(&input, 0, &error)) << error;
    reader.cut = log_form_cut(*maker.format, input.head, maker.context);
    record_reader_open(&reader, &input, input.size);
    log_event_look_ahead(&maker, reader.cut, record_reader_peek(&reader), modified_s);
    uint64_t offset;
    std::string_view text;
    while (record_reader_next(&reader, &offset, &text)) {
        if (text.empty() && reader.cut.rule == record_rule::objects) continue;
        log_event_make(&maker, text);
        if (maker.first.no_event) continue;
        const size_t record = all.size();
        all.push_back(maker.from_file ? "file" : utc_text(maker.time));
        all.back() += "\t" + std::to_string(std::count(text.begin(), text.end(), '\n') + 1);
        const size_t tab =
            record < wanted.size() ? wanted[record].find('\t', wanted[record].find('\t') + 1) : std::string::npos;
        if (tab != std::string::npos) all.back() += fields_among(wanted[record].substr(tab + 1), maker.first);
    }
    return all;
}

TEST(Corpus, EveryLogHasItsRecordsTimesAndFields) {
    size_t logs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VELDAR_SOURCE_DIR "/tests/data/formats")) {
        if (entry.path().extension() != ".expect") continue;
        std::istringstream expected(read_file(entry.path()));
        std::string word, line, zone = "UTC", date, clock;
        std::getline(expected, line);
        std::istringstream head(line);
        head >> word >> word >> date >> clock;
        while (head >> word) {
            if (word != "--tz") zone = word;
        }
        std::tm tm = {};
        ASSERT_NE(::strptime((date + " " + clock).c_str(), "%F %T", &tm), nullptr) << entry.path();
        std::vector<std::string> wanted;
        while (std::getline(expected, line)) wanted.push_back(line);
        const std::string log = std::filesystem::path(entry.path()).replace_extension(".log");
        EXPECT_GE(wanted.size(), 10u) << log;
        EXPECT_EQ(records_of(log, zone, ::timegm(&tm), wanted), wanted) << log;
        logs++;
    }
    EXPECT_GE(logs, 60u);
}

}  // namespace
}  // namespace veldar
