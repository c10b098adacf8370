#include "tools/libveldar/load/progress.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "libzero/resource.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/format/warmslice_header.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/observer.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

int64_t now_us() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

void show(progress* p, work_progress::kind_t kind, uint64_t done, uint64_t events) {
    const observer* const to = observer_current();
    if (p->is_hidden || to == nullptr || to->show == nullptr) return;
    const int64_t now = now_us();
    if (now - p->shown_us < 100000) return;
    p->shown_us = now;
    to->show(to->context, {kind, done, p->total, events, static_cast<double>(now - p->begun_us) / 1e6});
}

}  // namespace

std::string number_text(uint64_t number) {
    const std::string digits = std::to_string(number);
    std::string out;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
        out.push_back(digits[i]);
    }
    return out;
}

void load_totals::add_event(st_time_t time) {
    events++;
    earliest = std::min(earliest, time);
    latest = std::max(latest, time);
}

progress progress_begin(uint64_t total) {
    const int64_t now = now_us();
    return {total, now, now, false};
}

void progress_show(progress* p, uint64_t done, uint64_t events) {
    show(p, work_progress::LOADING, done, events);
}

void progress_show_merge(progress* p, uint64_t done) {
    show(p, work_progress::MERGING, done, 0);
}

void progress_end() {
    const observer* const to = observer_current();
    if (to != nullptr && to->shown_all != nullptr) to->shown_all(to->context);
}

std::string time_text(st_time_t time) {
    const time_t seconds = time;
    struct tm parts;
    char text[32];
    ::gmtime_r(&seconds, &parts);
    const size_t size = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return {text, size};
}

std::string bytes_text(uint64_t bytes) {
    const double size = static_cast<double>(bytes);
    if (bytes < 1000) return fmt::format("{} bytes", bytes);
    if (bytes < 1000000) return fmt::format("{:.1f} kB", size / 1e3);
    if (bytes < 1000000000) return fmt::format("{:.1f} MB", size / 1e6);
    return fmt::format("{:.2f} GB", size / 1e9);
}

std::string totals_text(const progress& p, const load_totals& totals, const dating_report* dating) {
    std::string text = number_text(totals.events) + (totals.events == 1 ? " event" : " events");
    if (totals.events > 0) {
        text +=
            fmt::format(", {} {} in {} {}, {} to {} UTC", number_text(totals.terms),
                        totals.terms == 1 ? "term" : "terms", totals.slices, totals.slices == 1 ? "slice" : "slices",
                        time_text(totals.earliest), time_text(totals.latest));
    }
    text += fmt::format(", {} read, {} of index", bytes_text(totals.bytes_in), bytes_text(totals.index_bytes));
    constexpr const char* NAMES[LINE_REFUSED] = {" with a time of their own", " dated by other lines",
                                                 " dated by their file", " joined to the line before"};
    for (size_t kind = 0; dating != nullptr && kind < LINE_REFUSED; kind++) {
        if (dating->counts[kind] > 0) text += ", " + number_text(dating->counts[kind]) + NAMES[kind];
    }
    if (totals.waiting == 1) text += ", 1 unfinished last line waits";
    if (totals.waiting > 1) text += ", " + number_text(totals.waiting) + " unfinished last lines wait";
    if (totals.waiting > 0) text += " (see " + input_name("flush") + ")";
    text += fmt::format(", {} {} refused, {:.1f} s", number_text(totals.refused),
                        totals.refused == 1 ? "line" : "lines", static_cast<double>(now_us() - p.begun_us) / 1e6);
    return text;
}

std::vector<std::string> slice_names(const std::string& directory) {
    std::vector<std::string> names = disk_list_directory(directory);
    std::erase_if(names, [](const std::string& name) {
        st_filename_metadata_t meta;
        return st_tsidx_file_parse(name.c_str(), &meta) == 0;
    });
    std::sort(names.begin(), names.end());
    return names;
}

void totals_add_slices(load_totals* totals, const std::string& directory, const std::vector<std::string>& before) {
    std::vector<std::string> names;
    try {
        names = slice_names(directory);
    } catch (const failure_t& failure) {  // the events are in the index, whatever can be told of its files
        say_trouble(failure.message);
    }
    for (const std::string& name : names) {
        if (std::binary_search(before.begin(), before.end(), name)) continue;
        const std::string path = directory + "/" + name;
        const unique_fd fd = disk_open(path, O_RDONLY);
        if (!fd.valid() && errno == ENOENT) continue;  // merged since
        struct stat st;
        st_warm_slice_body header;
        warm_rc_t rc;
        const bool is_open = fd.valid() && ::fstat(fd.get(), &st) == 0;
        if (!is_open) _set_rc(&rc, WARM_RC_OPEN);
        if (!is_open || warm_header_read(fd.get(), &header, &rc) != 0) {
            say_trouble(slice_error(path, rc));
            continue;
        }
        totals->slices++;
        totals->terms += header.num_terms.get();
        totals->index_bytes += static_cast<uint64_t>(st.st_size);
    }
}

}  // namespace veldar::tool
