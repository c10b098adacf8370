// The manifest of a merge, "veldar-merge-manifest.dat": which slices of a directory one slice takes the place of. While
// it is made it is called "veldar-merge-manifest.dat.tmp", and then it keeps other mergers away.
//
// Text of at most 16 KiB; lines end with a newline, one blank stands between words, names are without the directory:
//
//   veldar merge manifest 1
//   owner <process id> <boot id> <host>   of the process that merges; "-" for what it could not learn
//   target <name>                         <latest>-<earliest>-<id>.tsidx
//   temp <name>                           the target's name until then, <latest>-<earliest>-<id>.pre-tsidx
//   source <name>                         1 to 64 such lines, each a slice
//   check <16 hex digits>                 XXH64, seed 0, of all bytes before this line
//
// What readers make of it: tsidx_list.h. Who writes and removes it: tsidx_merge_commit.cc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "searchthing/base/warm_rc.h"

namespace veldar {

inline constexpr size_t MERGE_MANIFEST_MAX_BYTES = 16384;
inline constexpr char MERGE_MANIFEST_NAME[] = "veldar-merge-manifest.dat";
inline constexpr char MERGE_MANIFEST_TMP_NAME[] = "veldar-merge-manifest.dat.tmp";

struct merge_owner_t {
    int64_t process = 0;
    std::string boot;  // of the running system, so that processes of two runs are told apart
    std::string host;
    bool operator==(const merge_owner_t&) const = default;
};

struct merge_manifest_t {
    merge_owner_t owner;
    std::string target, temp;
    std::vector<std::string> sources;
};

// All of these may throw std::bad_alloc.

// This process.
merge_owner_t merge_owner_self();

// The first two lines, which the whole text begins with.
std::string merge_manifest_owner_text(const merge_owner_t& owner);
std::string merge_manifest_text(const merge_manifest_t& manifest);

// False unless the text begins with two whole lines that name an owner.
[[nodiscard]] bool merge_manifest_parse_owner(std::string_view text, merge_owner_t* owner);
// False unless the text is whole: its sum is right, every name is of its kind and none is a path. Nothing of a manifest
// that is not whole may be believed.
[[nodiscard]] bool merge_manifest_parse(std::string_view text, merge_manifest_t* manifest);

// Reads the file `name` of the directory; an empty text when there is none. Of a file that is too large to be a
// manifest only the first part is read, which is no manifest either. 0, WARM_RC_OPEN or WARM_RC_READ.
[[nodiscard]] int merge_manifest_read(const std::string& directory, const char* name, std::string* text, warm_rc_t* rc);
// The same from an open file.
[[nodiscard]] int merge_manifest_read_fd(int fd, std::string* text, warm_rc_t* rc);

// The names of the files that merges in the directory are writing, or have left behind for the next writer to remove.
// 0, WARM_RC_OPEN or WARM_RC_READ.
[[nodiscard]] int merge_manifest_temporaries(const std::string& directory, std::vector<std::string>* names,
                                             warm_rc_t* rc);

}  // namespace veldar
