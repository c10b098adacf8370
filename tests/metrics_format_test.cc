// The text formats of metrics, and the terms that labels become.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <map>
#include <random>

#include "tests/support/damage.h"
#include "tools/libveldar/formats/metric_csv.h"
#include "tools/libveldar/formats/metric_text.h"

namespace veldar {

using namespace tool;
namespace {

// "name{label=value,...} value seconds.nanoseconds", or what is wrong.
std::string describe(const char* wrong, const metric_record& record) {
    if (wrong != nullptr) return wrong;
    std::string text;
    for (const metric_measure& measure : record.measures) {
        text.append(measure.name).append("=");
        metric_value_put(&text, measure.value);
        text += ' ';
    }
    for (const metric_label& label : record.labels) text.append(label.name).append("=").append(label.value) += ' ';
    if (record.has_time) text += std::to_string(record.time.time_s) + "." + std::to_string(record.time.time_ns);
    return text;
}

std::string parse_text(std::string line, metric_time_unit unit = metric_time_unit::guess) {
    metric_record record;
    const char* const wrong = metric_text_parse(line, unit, &record);
    return describe(wrong, record);
}

std::string parse_csv(std::string header, std::string line, metric_csv_options options = {}) {
    metric_csv csv;
    csv.options = std::move(options);
    std::string error;
    if (!metric_csv_open(&csv, header, "file", &error)) return error;
    metric_record record;
    const char* const wrong = metric_csv_parse(&csv, line, &record);
    return describe(wrong, record);
}

TEST(MetricText, Dialects) {
    const std::vector<std::string> rows = data_rows("metric-lines");
    for (size_t i = 0; i + 1 < rows.size(); i += 2) EXPECT_EQ(parse_text(rows[i]), rows[i + 1]) << rows[i];
    EXPECT_EQ(parse_text("up{b=\"x\", a = \"\\\\n\\\"\\n\\q\", e=\"\",}\t-2E-3 1395066363000"),
              "up=-0.002 a=\\n\"\n\\q b=x 1395066363.0");
    EXPECT_EQ(parse_text("{__name__=\"up\"} -inf -1", metric_time_unit::milliseconds), "up=-Inf -1.999000000");
    EXPECT_EQ(parse_text("up 1 1395066363000", metric_time_unit::seconds),
              "the time is beyond what 32-bit seconds hold");
    EXPECT_EQ(parse_text(std::string("up{a=\"\0\"} 1", 12)), "a NUL byte");
}

TEST(MetricCsv, ColumnsAndQuotes) {
    EXPECT_EQ(parse_csv("\xEF\xBB\xBFtimestamp,value", "2014-05-14 01:14:00,85.835\r"), "file=85.835 1400030040.0");
    metric_csv_options named, two;
    named.name = "cpu";
    EXPECT_EQ(parse_csv("Time,value", "1400030040.5,", named), "1400030040.500000000");
    two.separator = ';';
    two.time = "when";
    two.values = {"in", "out"};
    two.dims = {"if", "a\"b"};
    EXPECT_EQ(parse_csv("out;if;when;in;\"a\"\"b\"", "2;\"eth;\"\"0\"\"\";2014-05-14; 1;", two),
              "in=1 out=2 if=eth;\"0\" 1400025600.0");
    EXPECT_EQ(parse_csv("out;if;when", "", two), "no value column in; the columns are out if when");
    EXPECT_EQ(parse_csv("a,b", ""), "no column of times (see time); the columns are a b");
    EXPECT_EQ(parse_csv("ts,value", "1,2,3"), "more or fewer fields than the header has");
    EXPECT_EQ(parse_csv("ts,value", "1,\"2\"3"), "text behind a closing quote");
    EXPECT_EQ(parse_csv("ts,value", "1,\"2"), "a quote is not closed");
    EXPECT_EQ(parse_csv("ts,value", "2014-05-41 01:14:00,1"), "the time cannot be read");
    EXPECT_TRUE(metric_csv_goes_on("1,\"a\nb\"\""));
}

using labels_t = std::vector<std::pair<std::string, std::string>>;

// Few characters, so that the ones with a meaning are common; never NUL.
std::string random_text(std::mt19937_64& random, size_t least) {
    constexpr std::string_view CHARACTERS = "ab:%\\\"\n, {}=.-1#\t\r_\xC3";
    std::string text(least + random() % 6, 'a');
    for (char& c : text) c = CHARACTERS[random() % CHARACTERS.size()];
    return random() % 8 == 0 ? "metric_name" : text;
}

// Whatever the names, values and times: text and terms give them back, to the bit.
TEST(MetricText, WhatIsWrittenIsReadBack) {
    std::mt19937_64 random(7);
    for (int round = 0; round < 20000; round++) {
        std::map<std::string, std::string> labels;
        for (size_t i = random() % 4; i > 0; i--) labels[random_text(random, 1)] = random_text(random, 1);
        const std::string name = random_text(random, 1);
        double value = std::bit_cast<double>(random());
        if (std::isnan(value)) value = round % 2 == 0 ? std::nan("") : -0.0;
        const auto seconds = static_cast<st_time_t>(random());
        const auto nanoseconds = static_cast<uint32_t>(random() % 1000) * 1000000;
        std::vector<metric_label> views;
        std::string decoded;
        for (const auto& [label, text] : labels) {
            views.push_back({label, text});
            std::string term;
            std::string_view rest;
            metric_term_put(&term, label, text);
            EXPECT_FALSE(term.starts_with(METRIC_NAME_TERM));
            metric_term_split(std::string_view(term).substr(1), &decoded, &rest);
            EXPECT_TRUE(decoded == label && rest == text) << term;
        }
        std::string line;
        metric_text_put(&line, name, views, value, seconds, nanoseconds);
        const std::string shown = line;
        ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << shown;
        line.pop_back();
        metric_record record;
        ASSERT_EQ(metric_text_parse(line, metric_time_unit::guess, &record), nullptr) << shown;
        ASSERT_TRUE(record.measures.size() == 1 && record.measures[0].name == name) << shown;
        EXPECT_EQ(std::bit_cast<uint64_t>(record.measures[0].value), std::bit_cast<uint64_t>(value)) << shown;
        EXPECT_TRUE(record.time.time_s == seconds && record.time.time_ns == nanoseconds) << shown;
        ASSERT_EQ(record.labels.size(), labels.size()) << shown;
        for (const metric_label& label : record.labels) {
            EXPECT_EQ(labels.at(std::string(label.name)), label.value) << shown;
        }
    }
}

}  // namespace
}  // namespace veldar
