#include <stdexcept>

#include "bench/compare/peer.h"
#include "searchthing/st.h"
#include "searchthing/st_optimize.h"

namespace veldar {

namespace {

void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(std::string("veldar: ") + what);
}

class veldar_peer final : public peer {
  public:
    explicit veldar_peer(std::string directory) : directory_(std::move(directory)) {
        TSWRITEOPTS options;
        st_tsidx_write_opts_set_defaults(&options);
        thing_ = st_open_for_write(directory_.c_str(), 0, TSIDX_ORDINARY_WRITER, &options);
        require(thing_ != nullptr, "open");
        st_tsidx_set_durable(st_directory(thing_), 0);
    }
    ~veldar_peer() override { static_cast<void>(st_close(thing_)); }

    std::string name() const override { return "veldar"; }

    void put(uint32_t number, int32_t time, const std::vector<std::string_view>& terms) override {
        const st_txn event = {.time = time, .address = number};
        require(st_put_event(thing_, &event, terms) == 0, "put");
    }

    void finish() override {
        require(st_close(thing_) == 0, "close");
        warm_rc_t rc;
        require(st_optimize_directory(directory_.c_str(), {.mode = TSIDX_OPTIMIZE_ALL}, &rc) == 0, "optimise");
        thing_ = st_open_for_read(directory_.c_str());
        require(thing_ != nullptr, "open for reading");
    }

    uint64_t count(const question& asked) override {
        const std::string text = text_of(asked);
        const st_query_spec query = query_of(asked, text);
        uint64_t events = 0;
        require(st_event_count(thing_, &query, &events) == 0, "count");
        return events;
    }

    std::vector<uint32_t> newest(const question& asked, uint32_t most) override {
        const std::string text = text_of(asked);
        const st_query_spec query = query_of(asked, text);
        answers_.resize(most);
        const int found = st_query(thing_, &query, answers_.data(), most, 1);
        require(found >= 0, "query");
        std::vector<uint32_t> numbers;
        for (int i = 0; i < found; i++) numbers.push_back(answers_[static_cast<size_t>(i)].address);
        return numbers;
    }

    uint64_t terms_with(const std::string& text) override {
        int64_t terms = st_lex_query(
            thing_, ("*" + text + "*").c_str(), [](const char*, size_t, uint64_t, void*) { return 1; }, nullptr);
        require(terms >= 0, "terms");
        return static_cast<uint64_t>(terms);
    }

  private:
    static std::string text_of(const question& asked) {
        std::string text = "[AND";
        for (const std::string& term : asked.all) text += " " + term;
        if (!asked.any.empty()) {
            text += " [OR";
            for (const std::string& term : asked.any) text += " " + term;
            text += "]";
        }
        for (const std::string& term : asked.none) text += " [NOT " + term + "]";
        return text + "]";
    }

    static st_query_spec query_of(const question& asked, const std::string& text) {
        st_query_spec query;
        st_query_init(&query);
        query.earliest = {asked.from, 0};
        query.latest = {asked.to, 0};
        query.lispy = text.c_str();
        return query;
    }

    std::string directory_;
    THING* thing_ = nullptr;
    std::vector<st_tsval> answers_;
};

}  // namespace

std::unique_ptr<peer> make_veldar(const std::string& directory) {
    return std::make_unique<veldar_peer>(directory);
}

}  // namespace veldar
