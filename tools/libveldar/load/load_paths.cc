#include "tools/libveldar/load/load_paths.h"

#include <sys/stat.h>

#include <algorithm>

#include "searchthing/format/tsidx_names.h"
#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/store.h"
#include "tools/libveldar/store/troubles.h"

namespace veldar::tool {

namespace {

bool is_directory(const std::string& path, bool follow) {
    struct stat st;
    return (follow ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) == 0 && S_ISDIR(st.st_mode);
}

bool is_slice(const std::string& name) {
    st_filename_metadata_t meta;
    return st_tsidx_file_parse(name.c_str(), &meta) != 0;
}

// What a directory is that no logs are in; null for any other.
const char* own_kind(const std::string& directory, const std::vector<std::string>& names) {
    if (std::find(names.begin(), names.end(), "store") != names.end() && store_is(directory))
        return "a store of veldar";
    return std::any_of(names.begin(), names.end(), is_slice) ? "an index directory" : nullptr;
}

// What is in a directory is put on the stack of paths to look at, the first of them on top.
void open_directory(const std::string& directory, std::vector<std::string>* stack) {
    std::vector<std::string> names = disk_list_directory(directory);
    if (const char* const kind = own_kind(directory, names); kind != nullptr) {
        return say_trouble(directory + ": " + kind + "; left out");
    }
    std::sort(names.begin(), names.end(), std::greater<>());
    const std::string front = directory.ends_with('/') ? directory : directory + "/";
    for (const std::string& name : names) {
        if (name == "." || name == "..") continue;
        const std::string path = front + name;
        if (!is_directory(path, true) || is_directory(path, false)) stack->push_back(path);
    }
}

}  // namespace

load_paths load_paths_find(const std::vector<std::string>& names, bool recursive) {
    load_paths found;
    if (!recursive) {
        found.files = names;
        return found;
    }
    for (const std::string& name : names) {
        std::vector<std::string> stack = {name};
        while (!stack.empty() && !work_stops()) {
            const std::string path = stack.back();
            stack.pop_back();
            if (path == "-" || !is_directory(path, path == name)) {
                found.files.push_back(path);
                continue;
            }
            try {
                open_directory(path, &stack);
            } catch (const failure_t& failure) {
                say_trouble(failure.message + "; left out");
                found.incomplete = true;
            }
        }
    }
    return found;
}

}  // namespace veldar::tool
