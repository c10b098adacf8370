// veldar info: what one slice is made of. On a damaged one it prints what can be told, and what is wrong.
#include <fmt/format.h>

#include <string_view>
#include <utility>
#include <vector>

#include "searchthing/postings/plist.h"
#include "searchthing/values/tsval.h"
#include "tools/libveldar/check/fsck_slice.h"
#include "tools/libveldar/query/time_input.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/event_output.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

constexpr uint64_t FLAG_BITS = 7;
constexpr const char* FLAGS[FLAG_BITS] = {"PLO_TAG1", "VALUES_PACKED", "PREAMBLES", "PLO_TAG2",
                                          "PLO32",    "MS_REQUESTED",  "MS_PRESENT"};

struct info_options {
    std::string path;
    std::string zone, format = "text";
};

struct slice_info {
    slice_image image;
    fsck_report report;
    lexicon_image lexicon;
    bool has_lexicon = false;
};

// The fields that this kind of header has, by name.
std::vector<std::pair<const char*, int64_t>> header_fields(const st_warm_slice_body& h) {
    std::vector<std::pair<const char*, int64_t>> fields = {
        {"num_values", h.num_values.get()}, {"num_postings", h.num_postings.get()},
        {"num_terms", h.num_terms.get()},   {"m_size", h.m_size.get()},
        {"s_size", h.s_size.get()},         {"st_size", h.st_size.get()},
        {"h_size", h.h_size.get()},         {"d_size", h.d_size.get()},
        {"m_nbits", h.m_nbits.get()},       {"s_nbits", h.s_nbits.get()},
        {"st_nbits", h.st_nbits.get()},     {"h_nbits", h.h_nbits.get()},
        {"d_nbits", h.d_nbits.get()}};
    if (warm_header_is_legacy(&h)) return fields;
    fields.insert(fields.end(), {{"earliest", static_cast<st_time_t>(h.earliest.get())},
                                 {"latest", static_cast<st_time_t>(h.latest.get())},
                                 {"wflags", static_cast<int64_t>(h.wflags.get())}});
    if (!warm_header_is_rev1(&h)) return fields;
    fields.insert(fields.end(), {{"seek_addr_min", h.seek_addr_min.get()},
                                 {"seek_addr_max", h.seek_addr_max.get()},
                                 {"cstore_ref", static_cast<int64_t>(h.cstore_ref.get())},
                                 {"num_dimsets", h.num_dimsets.get()}});
    return fields;
}

std::vector<const char*> flag_names(const st_warm_slice_body& h) {
    std::vector<const char*> names;
    for (uint64_t bit = 0; bit < FLAG_BITS; bit++) {
        if (warm_header_is_enabled(&h, uint64_t{1} << bit)) names.push_back(FLAGS[bit]);
    }
    return names;
}

// The sections that the slice has, those of unknown place included.
std::vector<slice_section_t> sections_of(const slice_image& image) {
    std::vector<slice_section_t> present;
    for (uint32_t i = 0; i < SLICE_SECTIONS; i++) {
        if (image.sections[i].state != SECTION_ABSENT) present.push_back(static_cast<slice_section_t>(i));
    }
    return present;
}

const char* state_text(section_state_t state) {
    return state == SECTION_CUT ? "cut off" : state == SECTION_UNKNOWN ? "unknown" : "whole";
}

double per(uint64_t amount, uint64_t of) {
    return of == 0 ? 0 : static_cast<double>(amount) / static_cast<double>(of);
}

std::string magic_text(const slice_info& info) {
    return std::string(info.image.header.magic, 7);
}

const char* kind_text(const slice_image& image) {
    if (image.mini) return "mini slice: values only";
    return st_warm_slice_is_msidx(&image.header) ? "metrics" : "events";
}

void put_header_text(const slice_info& info, const log_zone& zone, std::string* out) {
    const st_warm_slice_body& h = info.image.header;
    *out += fmt::format("\nHeader\n  {:<16}{}\n", "magic", magic_text(info));
    for (const auto& [name, value] : header_fields(h)) {
        *out += fmt::format("  {:<16}{}", name, value);
        const std::string_view field = name;
        if (field == "earliest" || field == "latest") {
            *out += "  " + event_time_text(static_cast<st_time_t>(value), 0, zone);
        }
        if (field == "wflags") {
            for (const char* const flag : flag_names(h)) *out += fmt::format(" {}", flag);
        }
        *out += '\n';
    }
}

// The events of the slice, and what bytes are counted by: samples where they could be counted.
uint64_t events_of(const slice_info& info) {
    const st_warm_slice_body& h = info.image.header;
    const bool has_runs = tsval_encoding(&h) == TSVAL_WITH_PREAMBLES && tsval_counts_agree(&h);
    return h.num_values.get() - (has_runs ? h.num_dimsets.get() : 0);
}
uint64_t unit_of(const slice_info& info) {
    return info.report.samples != 0 ? info.report.samples : events_of(info);
}

void put_sections_text(const slice_info& info, std::string* out) {
    const uint64_t events = unit_of(info);
    *out += fmt::format("\n{:<18}{:>14}{:>14}{:>14}\n", "Section", "offset", "bytes",
                        info.report.samples != 0 ? "bytes/sample" : "bytes/event");
    for (const slice_section_t section : sections_of(info.image)) {
        const section_place& at = info.image.sections[section];
        if (at.state == SECTION_UNKNOWN) {
            *out += fmt::format("  {:<16}{:>14}\n", slice_section_name(section), "unknown");
            continue;
        }
        *out += fmt::format("  {:<16}{:>14}{:>14}{:>14.2f}{}\n", slice_section_name(section), at.offset, at.size,
                            per(at.size, events), at.state == SECTION_CUT ? "  cut off" : "");
    }
    *out +=
        fmt::format("  {:<16}{:>28}{:>14.2f}\n", "file", info.image.bytes.size(), per(info.image.bytes.size(), events));
}

void put_terms_text(const slice_info& info, std::string* out) {
    if (info.has_lexicon) {
        const lexicon_image& lexicon = info.lexicon;
        *out += fmt::format("\nLexicon\n  {:<16}{}\n  {:<16}{} of {} terms\n", "terms", lexicon.terms, "blocks",
                            lexicon.blocks, lexicon.tperb);
        *out += fmt::format("  {:<16}{:.2f}, of text {:.2f}\n", "bytes/term", per(lexicon.size, lexicon.terms),
                            per(info.report.term_bytes, lexicon.terms));
    }
    if (info.image.mini) return;
    *out += fmt::format("\n{:<18}{:>14}{:>14}\n", "Lists", "terms", "bytes");
    for (uint32_t type = PLO_RLE; type <= PLO_DEDUP; type++) {
        const fsck_encoding_facts& facts = info.report.encodings[type];
        *out += fmt::format("  {:<16}{:>14}{:>14}\n", pl_type_as_str(type), facts.lists, facts.bytes);
    }
}

uint32_t num_sets(const st_warm_slice_body& h) {
    return warm_header_is_rev1(&h) ? h.num_dimsets.get() : 0;
}

std::string info_text(const slice_info& info, const log_zone& zone) {
    const slice_image& image = info.image;
    std::string out = fmt::format("{}: {} bytes", image.path, image.bytes.size());
    if (image.has_header) {
        const bool metrics = st_warm_slice_is_msidx(&image.header);
        out += fmt::format(", {}, {} {}", kind_text(image), events_of(info), metrics ? "events" : "values");
        out += metrics ? fmt::format(", {} samples, {} dimension sets\n", info.report.samples, num_sets(image.header))
                       : fmt::format(", {} deleted\n", info.report.deleted);
        put_header_text(info, zone, &out);
        put_sections_text(info, &out);
        put_terms_text(info, &out);
    } else {
        out += ", not a slice\n";
    }
    if (info.report.total == 0) return out;
    out += fmt::format("\nDamaged: {} faults\n", info.report.total);
    for (const fsck_finding& finding : info.report.findings) out += "  " + fsck_finding_text(finding) + "\n";
    for (const std::string& line : fsck_more_lines(info.report)) out += "  " + line + "\n";
    return out;
}

// Appends "name":, with a comma before it unless it is the first of its object.
void put_name(std::string* out, std::string_view name) {
    if (out->back() != '{') *out += ',';
    json_put_string(out, name);
    *out += ':';
}

template <typename T>
void put_number(std::string* out, std::string_view name, T value) {
    put_name(out, name);
    *out += fmt::format("{}", value);
}

void put_header_json(const slice_info& info, std::string* out) {
    put_name(out, "header");
    *out += '{';
    put_name(out, "magic");
    json_put_string(out, magic_text(info));
    for (const auto& [name, value] : header_fields(info.image.header)) put_number(out, name, value);
    *out += "},\"flags\":[";
    for (const char* const flag : flag_names(info.image.header)) {
        if (out->back() != '[') *out += ',';
        json_put_string(out, flag);
    }
    *out += ']';
}

void put_sections_json(const slice_info& info, std::string* out) {
    put_name(out, "sections");
    *out += '{';
    for (const slice_section_t section : sections_of(info.image)) {
        const section_place& at = info.image.sections[section];
        put_name(out, slice_section_name(section));
        *out += fmt::format("{{\"state\":\"{}\"", state_text(at.state));
        if (at.state != SECTION_UNKNOWN) {
            put_number(out, "offset", at.offset);
            put_number(out, "bytes", at.size);
            put_number(out, info.report.samples != 0 ? "bytes_per_sample" : "bytes_per_event",
                       per(at.size, unit_of(info)));
        }
        *out += '}';
    }
    *out += '}';
}

void put_terms_json(const slice_info& info, std::string* out) {
    if (info.has_lexicon) {
        *out += ",\"lexicon\":{";
        put_number(out, "terms", info.lexicon.terms);
        put_number(out, "terms_per_block", info.lexicon.tperb);
        put_number(out, "blocks", info.lexicon.blocks);
        put_number(out, "bytes", info.lexicon.size);
        put_number(out, "text_bytes", info.report.term_bytes);
        *out += '}';
    }
    if (info.image.mini) return;
    *out += ",\"lists\":{";
    for (uint32_t type = PLO_RLE; type <= PLO_DEDUP; type++) {
        const fsck_encoding_facts& facts = info.report.encodings[type];
        put_name(out, pl_type_as_str(type));
        *out += fmt::format("{{\"terms\":{},\"bytes\":{}}}", facts.lists, facts.bytes);
    }
    *out += '}';
}

std::string info_json(const slice_info& info) {
    std::string out = "{";
    put_name(&out, "path");
    json_put_string(&out, info.image.path);
    put_number(&out, "bytes", info.image.bytes.size());
    if (info.image.has_header) {
        put_name(&out, "kind");
        json_put_string(&out, kind_text(info.image));
        put_number(&out, "values", events_of(info));
        if (st_warm_slice_is_msidx(&info.image.header)) {
            put_number(&out, "samples", info.report.samples);
            put_number(&out, "dimension_sets", num_sets(info.image.header));
        } else {
            put_number(&out, "deleted", info.report.deleted);
        }
        put_header_json(info, &out);
        put_sections_json(info, &out);
        put_terms_json(info, &out);
    }
    put_number(&out, "faults", info.report.total);
    out += ",\"findings\":[";
    for (const fsck_finding& finding : info.report.findings) {
        if (out.back() != '[') out += ',';
        json_put_string(&out, fsck_finding_text(finding));
    }
    return out + "]}\n";
}

int info_run(const info_options& options) {
    slice_info info;
    std::string error;
    const image_state_t state = slice_image_open(options.path, &info.image, &error);
    if (state == IMAGE_VANISHED) throw failure_t{OUTCOME_IO, options.path + ": no such file"};
    if (state == IMAGE_UNREADABLE) throw failure_t{OUTCOME_IO, error};
    fsck_slice(info.image, &info.report);
    const section_place& lexicon = info.image.sections[IN_LEXICON];
    info.has_lexicon = (lexicon.state == SECTION_WHOLE || lexicon.state == SECTION_CUT) &&
                       lexicon_image_read(info.image.bytes, lexicon.offset, &info.lexicon);
    text_output out;
    output_open(&out, "never");
    output_put(&out, options.format == "json" ? info_json(info) : info_text(info, time_zone_of(options.zone)));
    output_flush(&out);
    return info.report.total == 0 ? OUTCOME_DONE : OUTCOME_DAMAGED;
}

}  // namespace

void add_info_command(const command& veldar) {
    static info_options options;
    const command info = veldar.subcommand("info", "Show what one slice is made of");
    info.footer("Exit status: 0, 4 when the slice is damaged (what can be told is printed), 5 when it cannot be read.");
    info.text("PATH", &options.path, "The slice").required();
    info.text("--format", &options.format, "text or json").one_of({"text", "json"}).with_default();
    add_zone_option(info, &options.zone);
    info.run([](const tool_context&) { return info_run(options); });
}

}  // namespace veldar::tool
