#include "tools/libveldar/formats/month_name.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace veldar::tool {
namespace {

constexpr size_t NAME_MAX_BYTES = 12;

constexpr uint32_t packed(const char* letters) {
    return static_cast<uint32_t>(static_cast<uint8_t>(letters[0]) << 16 | static_cast<uint8_t>(letters[1]) << 8 |
                                 static_cast<uint8_t>(letters[2]));
}

// What English names begin with, whatever follows.
constexpr std::array<uint32_t, 12> ENGLISH = {packed("jan"), packed("feb"), packed("mar"), packed("apr"),
                                              packed("may"), packed("jun"), packed("jul"), packed("aug"),
                                              packed("sep"), packed("oct"), packed("nov"), packed("dec")};

// Whole names, blanks around each: English, German, French, Spanish, Italian, Portuguese, Dutch, Nordic.
constexpr std::array<std::string_view, 12> NAMES = {
    " january januar jänner jän janvier janv enero ene gennaio gen janeiro januari ",
    " february februar février févr fév febrero febbraio fevereiro fev februari ",
    " march märz mär mrz mars marzo março maart mrt ",
    " april avril avr abril abr aprile ",
    " may mai mayo maggio mag maio mei maj ",
    " june juni juin junio giugno giu junho ",
    " july juli juillet juil julio luglio lug julho ",
    " august août agosto ago augustus augusti ",
    " september septembre sept septiembre settembre set setembro ",
    " october oktober okt octobre octubre ottobre ott outubro out ",
    " november novembre noviembre novembro ",
    " december dezember dez décembre déc diciembre dic dicembre dezembro ",
};

// A bit for the second byte of every name, by its first one: most words that are looked at begin no month.
constexpr std::array<uint32_t, 32> SECOND_BYTES = [] {
    std::array<uint32_t, 32> bits{};
    for (const std::string_view names : NAMES) {
        for (size_t i = 0; i + 2 < names.size(); i++) {
            if (names[i] == ' ') bits[names[i + 1] & 31] |= 1u << (names[i + 2] & 31);
        }
    }
    return bits;
}();

bool in_name(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (static_cast<unsigned char>(c) & 0x80) != 0;
}

// Sets the month's number unless the place is behind the twelfth.
bool set_month(ptrdiff_t place, unsigned* month) {
    if (place < 12) *month = static_cast<unsigned>(place) + 1;
    return place < 12;
}

}  // namespace

bool take_month(std::string_view* rest, unsigned* month) {
    if (rest->size() < 3 || (SECOND_BYTES[(*rest)[0] & 31] >> ((*rest)[1] & 31) & 1) == 0) return false;
    char word[NAME_MAX_BYTES + 3] = {' '};
    size_t size = 0;
    for (; size < rest->size() && size <= NAME_MAX_BYTES + 1 && in_name((*rest)[size]); size++) {
        const char c = (*rest)[size];
        if (size <= NAME_MAX_BYTES) word[size + 1] = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    }
    if (size < 3) return false;
    const bool english =
        set_month(std::find(ENGLISH.begin(), ENGLISH.end(), packed(word + 1)) - ENGLISH.begin(), month);
    if (size == 3 && english) {
        rest->remove_prefix(3);
        return true;
    }
    // A "T" may join the name and the clock.
    const bool joined = size <= NAME_MAX_BYTES + 1 && (word[size] | 0x20) == 't';
    for (const size_t part : {size, size - (joined ? 1 : 0)}) {
        if (part > NAME_MAX_BYTES) continue;
        word[part + 1] = ' ';
        const std::string_view wanted(word, part + 2);
        const auto* const found = std::find_if(NAMES.begin(), NAMES.end(), [wanted](std::string_view names) {
            return names.find(wanted) != std::string_view::npos;
        });
        if (set_month(found - NAMES.begin(), month)) {
            rest->remove_prefix(part);
            return true;
        }
    }
    if (english) rest->remove_prefix(3);
    return english;
}

}  // namespace veldar::tool
