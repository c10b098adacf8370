#include "searchthing/directory/merge_manifest.h"

#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>

#include "libzero/osfile.h"
#include "searchthing/format/tsidx_names.h"
#include "searchthing/merge/warmslice_merge.h"

namespace veldar {

namespace {

constexpr char FIRST_LINE[] = "veldar merge manifest 1\n";
constexpr char BOOT_ID_PATH[] = "/proc/sys/kernel/random/boot_id";

std::string check_line(std::string_view before) {
    char line[32];
    const uint64_t sum = XXH64(before.data(), before.size(), 0);
    std::snprintf(line, sizeof line, "check %016llx\n", static_cast<unsigned long long>(sum));
    return line;
}

// Takes "<word> <rest>\n" off the front.
bool take_line(std::string_view* text, std::string_view word, std::string_view* rest) {
    const size_t end = text->find('\n');
    if (end == text->npos) return false;
    std::string_view line = text->substr(0, end);
    if (!line.starts_with(word) || line.size() <= word.size() + 1 || line[word.size()] != ' ') return false;
    *rest = line.substr(word.size() + 1);
    text->remove_prefix(end + 1);
    return true;
}

bool take_owner(std::string_view* text, merge_owner_t* owner) {
    constexpr size_t FIRST_LINE_SIZE = sizeof FIRST_LINE - 1;
    std::string_view words;
    if (!text->starts_with(FIRST_LINE)) return false;
    text->remove_prefix(FIRST_LINE_SIZE);
    const bool has_owner = take_line(text, "owner", &words);
    const size_t first = words.find(' '), second = words.find(' ', first + 1);
    if (!has_owner || first == words.npos || second == words.npos) return false;
    const std::from_chars_result number = std::from_chars(words.data(), words.data() + first, owner->process, 10);
    if (number.ec != std::errc() || number.ptr != words.data() + first) return false;
    owner->boot = words.substr(first + 1, second - first - 1);
    owner->host = words.substr(second + 1);
    return true;
}

bool is_plain(std::string_view name) {
    return name.find('/') == name.npos && name.find('\0') == name.npos;
}

bool is_slice(const std::string& name) {
    st_filename_metadata_t meta;
    if (!is_plain(name) || name.ends_with(TSIDX_MINI_SUFFIX)) return false;
    return st_tsidx_file_parse(name.c_str(), &meta) != 0 || tsidx_part_file_parse(name.c_str(), &meta) != 0;
}

bool names_are_right(const merge_manifest_t& manifest) {
    st_filename_metadata_t meta;
    const std::vector<std::string>& sources = manifest.sources;
    return is_slice(manifest.target) && manifest.target.ends_with(TSIDX_SUFFIX) && is_plain(manifest.temp) &&
           tsidx_pre_file_parse(manifest.temp.c_str(), &meta) != 0 && !sources.empty() &&
           sources.size() <= MERGE_MAX_SOURCES && std::all_of(sources.begin(), sources.end(), is_slice) &&
           std::find(sources.begin(), sources.end(), manifest.target) == sources.end();
}

// A word of the owner's line: it has no blank or newline in it, and is not empty.
std::string as_word(std::string text) {
    std::erase_if(text, [](char c) { return c == ' ' || c == '\n' || c == '\0'; });
    return text.empty() ? "-" : text;
}

}  // namespace

merge_owner_t merge_owner_self() {
    char boot[64];
    const unique_fd fd(os_retry([] { return ::open(BOOT_ID_PATH, O_RDONLY | O_CLOEXEC); }));
    const ssize_t size = fd.valid() ? ::read(fd.get(), boot, sizeof boot) : 0;
    return {::getpid(), as_word({boot, boot + std::max<ssize_t>(size, 0)}), as_word(os_host_name().text)};
}

std::string merge_manifest_owner_text(const merge_owner_t& owner) {
    return FIRST_LINE + ("owner " + std::to_string(owner.process)) + " " + owner.boot + " " + owner.host + "\n";
}

std::string merge_manifest_text(const merge_manifest_t& manifest) {
    std::string text = merge_manifest_owner_text(manifest.owner);
    text += "target " + manifest.target + "\ntemp " + manifest.temp + "\n";
    for (const std::string& source : manifest.sources) text += "source " + source + "\n";
    return text + check_line(text);
}

bool merge_manifest_parse_owner(std::string_view text, merge_owner_t* owner) {
    std::string_view rest = text;
    if (!take_owner(&rest, owner)) return false;
    // Zeros are what a loss of power leaves of bytes that did not reach the disk.
    return text.substr(0, text.size() - rest.size()).find('\0') == text.npos;
}

bool merge_manifest_parse(std::string_view text, merge_manifest_t* manifest) {
    const size_t check = text.rfind("check ");
    if (check == text.npos || text.substr(check) != check_line(text.substr(0, check))) return false;
    std::string_view rest = text.substr(0, check), target, temp, source;
    merge_manifest_t found;
    const bool is_begun =
        take_owner(&rest, &found.owner) && take_line(&rest, "target", &target) && take_line(&rest, "temp", &temp);
    found.target = target;
    found.temp = temp;
    while (take_line(&rest, "source", &source)) found.sources.emplace_back(source);
    if (!is_begun || !rest.empty() || !names_are_right(found)) return false;
    *manifest = std::move(found);
    return true;
}

int merge_manifest_read_fd(int fd, std::string* text, warm_rc_t* rc) {
    text->resize(MERGE_MANIFEST_MAX_BYTES + 1);
    size_t size = 0;
    while (size < text->size()) {
        const ssize_t got =
            os_retry([&] { return ::pread(fd, text->data() + size, text->size() - size, static_cast<off_t>(size)); });
        if (got < 0) return _set_rc_msg(rc, WARM_RC_READ, "reading manifest file");
        if (got == 0) break;
        size += static_cast<size_t>(got);
    }
    text->resize(size);
    return 0;
}

int merge_manifest_read(const std::string& directory, const char* name, std::string* text, warm_rc_t* rc) {
    text->clear();
    const std::string path = directory + "/" + name;
    const unique_fd fd = osfile_open_regular(path.c_str(), O_RDONLY);
    if (fd.valid()) return merge_manifest_read_fd(fd.get(), text, rc);
    // A directory whose path has no room for the name cannot hold the file.
    if (errno == ENOENT || errno == ENAMETOOLONG) return 0;
    return _set_rc_msg(rc, WARM_RC_OPEN, path.c_str());
}

int merge_manifest_temporaries(const std::string& directory, std::vector<std::string>* names, warm_rc_t* rc) {
    names->clear();
    // In this order a manifest that is renamed meanwhile is not missed.
    for (const char* name : {MERGE_MANIFEST_TMP_NAME, MERGE_MANIFEST_NAME}) {
        std::string text;
        merge_manifest_t manifest;
        ST_TRY(merge_manifest_read(directory, name, &text, rc));
        if (merge_manifest_parse(text, &manifest)) names->push_back(manifest.temp);
    }
    return 0;
}

}  // namespace veldar
