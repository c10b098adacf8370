#include "tests/support/file_log.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "tests/support/file_log_hooks.h"
#include "tests/support/temp_dir.h"

namespace veldar {

namespace {

namespace fs = std::filesystem;

using names_t = std::map<std::string, uint64_t>;

std::vector<file_op>* log_of_calls = nullptr;
std::string logged_directory;

void apply_name(const file_op& op, names_t* names) {
    switch (op.kind) {
        case file_op::CREATE:
            (*names)[op.path] = op.inode;
            break;
        case file_op::LINK:
            if (names->contains(op.path)) (*names)[op.to] = (*names)[op.path];
            break;
        case file_op::RENAME:
            if (!names->contains(op.path)) break;
            (*names)[op.to] = (*names)[op.path];
            names->erase(op.path);
            break;
        case file_op::UNLINK:
            names->erase(op.path);
            break;
        default:
            break;
    }
}

bool is_of_names(const file_op& op) {
    return op.kind == file_op::CREATE || op.kind == file_op::LINK || op.kind == file_op::RENAME ||
           op.kind == file_op::UNLINK;
}

std::string parent_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

void apply_data(const file_op& op, size_t bytes, std::string* content) {
    if (op.kind == file_op::SIZE) {
        content->resize(op.offset);
        return;
    }
    if (content->size() < op.offset + bytes) content->resize(op.offset + bytes);
    content->replace(op.offset, bytes, op.bytes, 0, bytes);
}

}  // namespace

void file_log_add(file_op op) {
    if (log_of_calls == nullptr) return;
    for (std::string* path : {&op.path, &op.to}) {
        if (path->empty()) continue;
        if (path->rfind(logged_directory, 0) != 0) return;
    }
    std::vector<file_op>* const calls = log_of_calls;
    log_of_calls = nullptr;  // what growing the log does is not the program's
    calls->push_back(std::move(op));
    log_of_calls = calls;
}

bool file_log_is_on() {
    return log_of_calls != nullptr;
}

file_log::file_log(std::string directory) : directory_(std::move(directory)) {
    for (const auto& entry : fs::recursive_directory_iterator(directory_)) {
        struct stat status;
        if (!entry.is_regular_file() || ::stat(entry.path().c_str(), &status) != 0) continue;
        names_[entry.path()] = status.st_ino;
        contents_[status.st_ino] = read_file(entry.path());
    }
    logged_directory = directory_;
    log_of_calls = &operations_;
}

file_log::~file_log() {
    stop();
}

void file_log::stop() {
    log_of_calls = nullptr;
}

void file_log::note(uint64_t what) const {
    file_log_add({.kind = file_op::NOTE, .offset = what});
}

std::map<std::string, std::string> file_log::after_power_loss(size_t count, bool ordered, std::mt19937* random) const {
    const std::vector<file_op>& ops = operations_;
    std::map<uint64_t, size_t> synced;           // by inode: operations before this one are on the disk
    std::map<std::string, size_t> names_synced;  // the same of the names in a directory
    for (size_t i = 0; i < count; i++) {
        if (ops[i].kind == file_op::SYNC) synced[ops[i].inode] = i;
        if (ops[i].kind == file_op::SYNC_NAMES) names_synced[ops[i].path] = i;
    }
    // 0: nothing of the rest, 1: everything, 2: some, 3: all names but one.
    const auto names_kept = (*random)() % 4, data_kept = (*random)() % 3;
    size_t pending = 0, reached = 0;
    const auto is_durable = [&](size_t i, const std::string& path) {
        const auto found = names_synced.find(parent_of(path));
        return found != names_synced.end() && i < found->second;
    };
    for (size_t i = 0; i < count; i++) pending += is_of_names(ops[i]) && !is_durable(i, ops[i].path) ? 1 : 0;
    const size_t left_out = (*random)() % (pending + 1);
    const size_t prefix = names_kept == 0 ? 0 : names_kept == 1 ? pending : (*random)() % (pending + 1);
    names_t names = names_;
    std::map<uint64_t, std::string> contents = contents_;
    for (size_t i = 0; i < count; i++) {
        const file_op& op = ops[i];
        if (op.kind == file_op::CREATE) contents[op.inode].clear();  // the number may have been another file's
        if (is_of_names(op)) {
            bool keep = is_durable(i, op.path);
            if (!keep) {
                const size_t number = reached++;
                const bool some = names_kept == 2 ? (*random)() % 2 == 0 : number != left_out;
                keep = ordered ? number < prefix : names_kept == 1 || (names_kept >= 2 && some);
            }
            if (keep) apply_name(op, &names);
        }
        if (op.kind != file_op::DATA && op.kind != file_op::SIZE) continue;
        const bool durable = synced.contains(op.inode) && i < synced[op.inode];
        const auto fate = durable || data_kept == 1 ? 0u : data_kept == 0 ? 1u : (*random)() % 3;
        if (fate == 0) apply_data(op, op.bytes.size(), &contents[op.inode]);
        if (fate == 2) apply_data(op, op.bytes.size() / 2, &contents[op.inode]);
    }
    std::map<std::string, std::string> tree;
    for (const auto& [path, inode] : names) tree[path.substr(directory_.size() + 1)] = contents[inode];
    return tree;
}

}  // namespace veldar
