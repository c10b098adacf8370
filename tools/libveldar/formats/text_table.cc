#include "tools/libveldar/formats/text_table.h"

namespace veldar::tool {

uint32_t text_number(text_table* table, std::string_view text) {
    const auto known = table->numbers.find(text);
    if (known != table->numbers.end()) return known->second;
    const auto number = static_cast<uint32_t>(table->texts.size());
    table->texts.push_back(&table->numbers.emplace(text, number).first->first);
    return number;
}

}  // namespace veldar::tool
