#include <xapian.h>

#include <filesystem>

#include "bench/compare/peer.h"

namespace veldar {

namespace {

// Boolean terms without positions or weights, the time as a value, documents numbered in the order of the events.
class xapian_peer final : public peer {
  public:
    explicit xapian_peer(std::string directory)
        : directory_(std::move(directory)),
          writer_(directory_ + "/first", Xapian::DB_CREATE_OR_OVERWRITE | Xapian::DB_NO_SYNC) {}

    std::string name() const override { return "Xapian"; }

    void put(uint32_t, int32_t time, const std::vector<std::string_view>& terms) override {
        Xapian::Document document;
        for (const std::string_view term : terms) document.add_boolean_term(std::string(term));
        document.add_value(TIME, Xapian::sortable_serialise(time));
        writer_.add_document(document);
    }

    void finish() override {
        writer_.commit();
        writer_.compact(directory_ + "/merged");
        writer_.close();
        std::filesystem::remove_all(directory_ + "/first");
        reader_ = Xapian::Database(directory_ + "/merged");
    }

    uint64_t count(const question& asked) override {
        const bool one = asked.all.size() == 1 && asked.any.empty() && asked.none.empty();
        if (one && asked.from == INT32_MIN && asked.to == INT32_MAX) return reader_.get_termfreq(asked.all[0]);
        return matches(asked, 0, reader_.get_doccount()).get_matches_estimated();
    }

    std::vector<uint32_t> newest(const question& asked, uint32_t most) override {
        std::vector<uint32_t> numbers;
        const Xapian::MSet found = matches(asked, most, 0);
        for (Xapian::MSetIterator it = found.begin(); it != found.end(); ++it) numbers.push_back(*it - 1);
        return numbers;
    }

    uint64_t terms_with(const std::string& text) override {
        uint64_t terms = 0;
        for (Xapian::TermIterator it = reader_.allterms_begin(); it != reader_.allterms_end(); ++it) {
            terms += (*it).find(text) != std::string::npos;
        }
        return terms;
    }

  private:
    static constexpr Xapian::valueno TIME = 0;

    Xapian::MSet matches(const question& asked, uint32_t most, uint32_t look_at) const {
        using Xapian::Query;
        Query query(Query::OP_AND, asked.all.begin(), asked.all.end());
        if (!asked.any.empty()) {
            const Query any(Query::OP_OR, asked.any.begin(), asked.any.end());
            query = asked.all.empty() ? any : Query(Query::OP_AND, query, any);
        }
        for (const std::string& term : asked.none) query = Query(Query::OP_AND_NOT, query, Query(term));
        if (asked.from != INT32_MIN || asked.to != INT32_MAX) {
            query = Query(Query::OP_FILTER, query,
                          Query(Query::OP_VALUE_RANGE, TIME, Xapian::sortable_serialise(asked.from),
                                Xapian::sortable_serialise(asked.to)));
        }
        Xapian::Enquire enquire(reader_);
        enquire.set_weighting_scheme(Xapian::BoolWeight());
        enquire.set_docid_order(Xapian::Enquire::DESCENDING);
        enquire.set_query(query);
        return enquire.get_mset(0, most, look_at);
    }

    std::string directory_;
    Xapian::WritableDatabase writer_;
    Xapian::Database reader_;
};

}  // namespace

std::unique_ptr<peer> make_xapian(const std::string& directory) {
    return std::make_unique<xapian_peer>(directory);
}

}  // namespace veldar
