// Logs that are loaded into a store by the built tool, and everything read back: each event's address leads to a raw
// record, and the records of all events together must be those of the logs, each once.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "searchthing/slice/warmslice.h"
#include "searchthing/values/tsval.h"
#include "tests/support/faults.h"
#include "tests/support/packing.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tools/libveldar/load/loader.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/raw_reader.h"
#include "tools/libveldar/store/slices.h"

namespace veldar {

using namespace tool;

using lines = std::vector<std::string>;

inline lines log_lines(int first, int count) {
    lines out;
    for (int i = first; i < first + count; i++) {
        char time[40];
        std::snprintf(time, sizeof time, "2024-03-%02dT%02d:%02d:%02dZ", 1 + i / 86400, i / 3600 % 24, i / 60 % 60,
                      i % 60);
        out.push_back(std::string(time) + " request " + std::to_string(i) + " user=u" + std::to_string(i % 50));
    }
    return out;
}

inline std::string joined(const lines& all) {
    std::string text;
    for (const std::string& line : all) text += line + "\n";
    return text;
}

inline lines operator+(lines a, const lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline lines sorted(lines all) {
    std::sort(all.begin(), all.end());
    return all;
}

inline void append(const std::string& path, const std::string& text) {
    write_file(path, read_file(path) + text);
}

inline void write_gzip(const std::string& path, const std::string& text) {
    write_file(path, gzip_member(text));
}

struct event_seen {
    st_time_t time;
    std::string record;
};

// Every event of a bucket with its raw record.
inline void read_bucket(const std::string& directory, std::vector<event_seen>* events) {
    std::string error;
    const raw_reader_ptr raw = raw_reader_open(directory, &error);
    ASSERT_NE(raw, nullptr) << error;
    for (const std::string& name : slice_names(directory)) {
        warm_rc_t rc;
        WARM* slice = st_warm_slice_open_rdonly((directory + "/" + name).c_str(), &rc);
        ASSERT_NE(slice, nullptr) << name << ": " << rc.message;
        for (uint32_t id = 0; id < st_warm_slice_values(slice); id++) {
            st_tsval value;
            raw_record record;
            ASSERT_EQ(tsval_reader_decode(&slice->tsval_reader, id, &value, false, id, &rc), 0) << rc.message;
            if (value.s == ST_DELETED_SOURCE) continue;
            EXPECT_EQ(value.measure, 0u);
            EXPECT_TRUE(raw_reader_fetch(raw.get(), value.address, &record, &error)) << error;
            events->push_back({value.time, record.text});
        }
        st_warm_slice_close(slice);
    }
}

class Load : public testing::Test {
  protected:
    std::string file(const std::string& name) const { return dir.file(name); }
    std::string store() const { return dir.file("store"); }

    tool_result load(const lines& arguments, const tool_options& options = {}) const {
        const tool_result result = run_tool("veldar/veldar", lines{"-s", store(), "load"} + arguments, options);
        EXPECT_LT(result.status, 1000 + (options.signal != 0 ? 1000 : 0)) << result.err;
        return result;
    }
    void load_all(const lines& arguments) const {
        const tool_result result = load(arguments);
        const bool undated = result.err.find(" a time that is understood") != std::string::npos;
        EXPECT_EQ(result.status, undated ? 3 : 0) << result.err;
    }

    // Writes the file anew, or more to its end, and loads it.
    void take(const std::string& path, const std::string& text, const lines& options = {}) const {
        write_file(path, text);
        load_all(lines{path} + options);
    }
    void grow(const std::string& path, const std::string& text, const lines& options = {}) const {
        take(path, read_file(path) + text, options);
    }
    std::string count(const lines& asked) const {
        return run_tool("veldar/veldar", lines{"-s", store(), "count"} + asked).out;
    }

    std::vector<event_seen> events(const std::string& path) const {
        std::vector<event_seen> all;
        for (const std::string& directory : store_bucket_directories(path)) read_bucket(directory, &all);
        return all;
    }
    lines records() const { return records(store()); }
    lines records(const std::string& path) const {
        lines all;
        for (const event_seen& event : events(path)) all.push_back(event.record);
        return sorted(all);
    }

    // The source map as a load leaves it that is killed right after its slices became visible: the marks behind the
    // last stretch are missing.
    void forget_mark() const {
        const std::string path = store_bucket_directories(store()).back() + "/source.map";
        std::string bytes = read_file(path);
        constexpr size_t MARK = 24, TAIL = 40;
        bytes.resize(bytes.size() - MARK - TAIL);
        write_file(path, bytes);
    }

    temp_dir dir;
};

}  // namespace veldar
