// The same events and the same questions for several indexes in turn, their answers compared with each other: processor
// time a question, the best of several rounds, and how many times the best peer's this one takes.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <unordered_map>

#include "bench/compare/peer.h"
#include "bench/corpus.h"
#include "bench/scratch_dir.h"
#include "bench/stopwatch.h"

namespace veldar {
namespace {

constexpr int ROUNDS = 7;
constexpr double LEAST_SECONDS = 0.02;  // of a measured stretch, which repeats short questions

double seconds_of(const std::function<void()>& work) {
    return processor_seconds_of(work, LEAST_SECONDS);
}

struct compared {
    std::unique_ptr<peer> index;
    std::string directory;
};

uint64_t bytes_of(const std::string& directory) {
    uint64_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file()) bytes += entry.file_size();
    }
    return bytes;
}

void print_row(const std::string& what, const std::vector<double>& figures, const char* unit) {
    const double best_peer = *std::min_element(figures.begin() + 1, figures.end());
    std::printf("%-34s", what.c_str());
    for (const double figure : figures) std::printf("%14.1f", figure);
    std::printf(" %-3s%8.3f\n", unit, best_peer == 0 ? 0 : figures[0] / best_peer);
    std::fflush(stdout);
}

void fill(std::vector<compared>& peers, const corpus& events) {
    std::vector<double> put, sizes;
    std::vector<std::string_view> terms;
    for (compared& one : peers) {
        const double begin = processor_seconds();
        for (uint32_t i = 0; i < events.events.size(); i++) {
            terms.clear();
            for (uint32_t n = 0; n < CORPUS_TERMS_PER_EVENT; n++) {
                terms.push_back(events.term(events.events[i].first_term + n));
            }
            one.index->put(i, events.events[i].time, terms);
        }
        one.index->finish();
        const auto count = static_cast<double>(events.events.size());
        put.push_back(1e6 * (processor_seconds() - begin) / count);
        sizes.push_back(static_cast<double>(bytes_of(one.directory)) / count);
    }
    print_row("put and merge, an event", put, "us");
    print_row("index, an event", sizes, "B");
}

// The word in about this many events.
std::string word_in(const corpus& events, uint32_t wanted, uint32_t skip) {
    std::unordered_map<std::string_view, uint32_t> counts;
    for (uint32_t i = 0; i < events.term_ends.size(); i++) counts[events.term(i)]++;
    std::vector<std::pair<uint32_t, std::string_view>> near;
    for (const auto& [term, count] : counts) {
        const bool word = std::all_of(term.begin(), term.end(), [](char c) { return c >= 'a' && c <= 'z'; });
        if (word) near.emplace_back(std::max(count, wanted) - std::min(count, wanted), term);
    }
    std::nth_element(near.begin(), near.begin() + skip, near.end());
    return std::string(near[skip].second);
}

std::vector<question> questions(const corpus& events) {
    const auto count = static_cast<uint32_t>(events.events.size());
    const std::string f = "get", g = "status::200", h = "post", m = word_in(events, count / 100, 0),
                      n = word_in(events, count / 100, 1), r = word_in(events, count / 10000, 0),
                      q = word_in(events, count / 10000, 1);
    std::vector<question> all = {
        {"frequent", {f}, {}, {}},
        {"medium", {m}, {}, {}},
        {"rare", {r}, {}, {}},
        {"frequent AND frequent", {f, g}, {}, {}},
        {"frequent OR frequent", {}, {f, h}, {}},
        {"frequent NOT frequent", {f}, {}, {g}},
        {"frequent AND medium", {f, m}, {}, {}},
        {"medium AND medium", {m, n}, {}, {}},
        {"frequent AND rare", {f, r}, {}, {}},
        {"medium NOT frequent", {m}, {}, {g}},
        {"five ORed", {}, {m, n, r, q, "status::500"}, {}},
    };
    const int32_t first = events.events.front().time, tenth = (events.events.back().time - first) / 10;
    for (size_t i = 0, unbounded = all.size(); i < unbounded; i++) {
        all.push_back(all[i]);
        all.back().name += ", a tenth";
        all.back().from = first + 3 * tenth;
        all.back().to = first + 4 * tenth;
    }
    return all;
}

// One row: what `ask` takes of each, in turn. False when the answers differ.
template <typename Answer>
bool compare(const std::string& what, std::vector<compared>& peers, const std::function<Answer(peer&)>& ask) {
    std::vector<double> best(peers.size(), 1e9);
    std::vector<Answer> answers;
    for (compared& one : peers) answers.push_back(ask(*one.index));
    for (int round = 0; round < ROUNDS; round++) {
        for (size_t i = 0; i < peers.size(); i++) {
            best[i] = std::min(best[i], 1e6 * seconds_of([&] { ask(*peers[i].index); }));
        }
    }
    print_row(what, best, "us");
    const bool same = std::all_of(answers.begin(), answers.end(), [&](const Answer& one) { return one == answers[0]; });
    if (!same) std::printf("  the answers differ\n");
    return same;
}

int run(uint32_t count) {
    const scratch_dir scratch;
    std::vector<compared> peers;
    const auto add = [&](auto make, const char* name) {
        const std::string directory = scratch.path() + "/" + name;
        std::filesystem::create_directory(directory);
        peers.push_back({make(directory), directory});
    };
    add(make_veldar, "veldar");
    add(make_sqlite, "sqlite");
    add(make_xapian, "xapian");
    const corpus events = corpus_generate(count);
    std::printf("%-34s", (std::to_string(count) + " events").c_str());
    for (const compared& one : peers) std::printf("%14s", one.index->name().c_str());
    std::printf("%12s\n", "of best");
    fill(peers, events);
    bool same = true;
    for (const question& asked : questions(events)) {
        same &= compare<uint64_t>("count " + asked.name, peers, [&](peer& index) { return index.count(asked); });
    }
    for (const question& asked : questions(events)) {
        same &= compare<std::vector<uint32_t>>("newest 100 " + asked.name, peers,
                                               [&](peer& index) { return index.newest(asked, 100); });
    }
    for (const char* text : {"mid", "status::", "nosuch"}) {
        same &= compare<uint64_t>(std::string("terms *") + text + "*", peers,
                                  [&](peer& index) { return index.terms_with(text); });
    }
    return same ? 0 : 1;
}

}  // namespace
}  // namespace veldar

int main(int argc, char** argv) {
    const long count = argc > 1 ? std::strtol(argv[1], nullptr, 10) : veldar::CORPUS_MILLION;
    if (count < 100000 || count > 20'000'000) {
        std::fprintf(stderr, "usage: compare [EVENTS]   (100000 to 20000000)\n");
        return 2;
    }
    return veldar::run(static_cast<uint32_t>(count));
}
