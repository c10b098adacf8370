#include "tools/libveldar/store/observer.h"

#include <algorithm>
#include <utility>

#include "tools/libveldar/store/disk_file.h"

namespace veldar::tool {

namespace {

thread_local const observer* current = nullptr;

void say(notice_t kind, const std::string& message) {
    if (current != nullptr && current->say != nullptr) current->say(current->context, kind, message);
}

}  // namespace

const observer* observer_current() {
    return current;
}

observer observer_of_threads() {
    if (current == nullptr) return {};
    return {.context = current->context, .stops = current->stops, .has_options = current->has_options};
}

observer_scope::observer_scope(const observer* now) : before_(current) {
    current = now;
}

observer_scope::~observer_scope() {
    current = before_;
}

void say_trouble(const std::string& message) {
    say(NOTICE_TROUBLE, message);
}

void say_summary(const std::string& message) {
    say(NOTICE_SUMMARY, message);
}

std::string input_name(std::string_view option) {
    if (current != nullptr && current->has_options) return "--" + std::string(option);
    constexpr std::pair<std::string_view, const char*> OTHERS[] = {{"tz", "zone"}, {"agg", "aggregates"}};
    for (const auto& [name, other] : OTHERS) {
        if (option == name) return other;
    }
    std::string name(option);
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

bool work_stops() {
    if (work_interrupted != 0) return true;
    return current != nullptr && current->stops != nullptr && current->stops(current->context);
}

}  // namespace veldar::tool
