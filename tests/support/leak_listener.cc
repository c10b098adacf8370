#include "tests/support/leak_listener.h"

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace veldar {

namespace fs = std::filesystem;

// The descriptor that the listing itself holds comes and goes, so it is left out by its target.
std::set<std::string> leak_listener::open_descriptors() {
    std::set<std::string> found;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = fs::read_symlink(entry.path(), gone).string();
        if (gone || target.find("/proc/") == 0) continue;
        found.insert(entry.path().filename().string() + " -> " + target);
    }
    return found;
}

std::set<std::string> leak_listener::temporary_files() {
    std::set<std::string> found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(temp_dir::root())) {
        found.insert(entry.path().string());
    }
    return found;
}

void leak_listener::OnTestStart(const testing::TestInfo&) {
    files_ = temporary_files();
    descriptors_ = open_descriptors();
}

void leak_listener::OnTestEnd(const testing::TestInfo&) {
    for (const std::string& descriptor : open_descriptors()) {
        if (!descriptors_.contains(descriptor)) ADD_FAILURE() << "descriptor left open: " << descriptor;
    }
    for (const std::string& file : temporary_files()) {
        if (!files_.contains(file)) ADD_FAILURE() << "temporary file left behind: " << file;
    }
}

}  // namespace veldar

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new veldar::leak_listener);
    return RUN_ALL_TESTS();
}
