#include "tools/veldar/commands/completion.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "tools/libveldar/query/metric_ask.h"
#include "tools/libveldar/query/metric_catalog.h"
#include "tools/libveldar/query/term_input.h"
#include "tools/libveldar/store/slices.h"
#include "tools/libveldar/store/store.h"
#include "tools/veldar/commands/command.h"
#include "tools/veldar/output/text_output.h"

namespace veldar::tool {

namespace {

using strings = std::vector<std::string>;

constexpr uint64_t VALUES = 50;
constexpr char BASH[] = R"(# veldar: completion for bash
_veldar() {
    local words=() word join='' cur head
    # bash takes words apart at = and :
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        if [[ ${#words[@]} -gt 0 && $word == [=:]* ]]; then
            words[-1]+=$word
            join=1
        elif [[ -n $join ]]; then
            words[-1]+=$word
            join=''
        else
            words+=("$word")
        fi
    done
    cur=${words[-1]-}
    head=${cur%"${cur##*[=:]}"}
    mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
    # What logs hold is inserted as it stands: nothing that a shell would obey.
    local safe=()
    for word in "${COMPREPLY[@]}"; do
        [[ $word =~ ^[A-Za-z0-9_./:=@%+,-]*$ ]] && safe+=("${word#"$head"}")
    done
    COMPREPLY=("${safe[@]}")
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]]; then compopt -o nospace 2>/dev/null; fi
}
complete -o default -F _veldar veldar
)";
constexpr char ZSH[] = R"(#compdef veldar
# veldar: completion for zsh
_veldar() {
    local -a found
    found=("${(@f)$("${words[1]}" __complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
    found=(${found:#})
    if (( ${#found} )); then
        compadd -S '' -- ${found:#^*=}
        compadd -- ${found:#*=}
    else
        _files
    fi
}
if [[ $zsh_eval_context[-1] == loadautofunc ]]; then _veldar "$@"; else compdef _veldar veldar; fi
)";
constexpr char FISH[] = R"(# veldar: completion for fish
function __veldar_complete
    set -l words (commandline -opc)
    $words[1] __complete $words[2..-1] (commandline -ct) 2>/dev/null
end
complete -c veldar -f -n 'test (count (__veldar_complete)) -gt 0' -a '(__veldar_complete)'
complete -c veldar -F -n 'test (count (__veldar_complete)) -eq 0'
)";

// Ends what is asked of a large store.
struct deadline {
    std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    static bool is_over(void* context) {
        return std::chrono::steady_clock::now() > static_cast<const deadline*>(context)->end;
    }
};

// The place that is completed.
struct place {
    const command_text* command = nullptr;
    const option_text* option = nullptr;  // whose value is meant
    size_t positional = 0;                // number of the argument without a name
    std::string store, word;
};

const option_text* option_of(const command_text& tree, const command_text& command, const std::string& name) {
    for (const command_text* const one : {&command, &tree}) {
        for (const option_text& option : one->options) {
            if (std::find(option.names.begin(), option.names.end(), name) != option.names.end()) return &option;
        }
    }
    return nullptr;
}

const command_text* subcommand_of(const command_text& command, const std::string& word) {
    const std::string name = command.name + (command.name.empty() ? "" : " ") + word;
    const auto found = std::find_if(command.subcommands.begin(), command.subcommands.end(),
                                    [&](const command_text& one) { return one.name == name; });
    return found == command.subcommands.end() ? nullptr : &*found;
}

place find_place(const command_text& tree, const strings& words) {
    place at;
    at.command = &tree;
    for (size_t i = 0; i < words.size(); i++) {
        const std::string& word = words[i];
        const bool is_last = i + 1 == words.size();
        if (at.option != nullptr) {
            if (is_last) break;
            const bool is_store = at.option->names.back() == "--store";
            if (is_store) at.store = word;
            at.option = nullptr;
        } else if (is_last) {
            break;
        } else if (word.starts_with("--store=")) {
            at.store = word.substr(8);
        } else if (word.starts_with('-') && word.size() > 1) {
            const option_text* const option = option_of(tree, *at.command, word);
            if (option != nullptr && !option->type.empty()) at.option = option;
        } else if (const command_text* const next = subcommand_of(*at.command, word); next != nullptr) {
            at.command = next;
        } else {
            at.positional++;
        }
    }
    at.word = words.empty() ? "" : words.back();
    return at;
}

void add_fields(const std::string& store, const std::string& before, const std::string& behind, strings* out) {
    troubles trouble;
    for (const field_totals& field : fields_list(terms_at(store, terms_of_fields(), &trouble))) {
        out->push_back(before + field_query_text(field.name) + behind);
    }
}

// The last part of a query: "status=4", "(level=e", "-path".
void add_query(const std::string& store, const std::string& word, strings* out) {
    const size_t begin = std::min(word.find_first_not_of("'\"(-"), word.size());
    const std::string before = word.substr(0, begin), rest = word.substr(begin);
    const size_t equals = rest.find('=');
    if (equals == std::string::npos) return add_fields(store, before, "=", out);
    troubles trouble;
    for (const counted_term& one : terms_by_count(terms_at(store, terms_of_pattern(rest + "*"), &trouble), VALUES)) {
        out->push_back(before + term_query_text(one.term));
    }
}

void add_slices(const std::string& store, strings* out) {
    const slice_set set = slices_list_all(store);
    for (const slice_directory& directory : set.directories) out->push_back(directory.path);
    for (size_t i = 0; i < set.slices->size(); i++) out->push_back(set.slices->path(i));
}

void add_metrics(const std::string& store, bool labels, strings* out) {
    troubles trouble;
    const metric_catalog catalog = metric_catalog_read(metric_directory_of(store), &trouble);
    for (const auto& [name, totals] : catalog.names) {
        if (!labels) out->push_back(name);
    }
    for (const auto& [name, totals] : catalog.labels) {
        if (labels) out->push_back(name);
    }
}

// What lies in the store, for an argument or an option's value of this name.
void add_from_store(const place& at, const std::string& name, strings* out) {
    const std::string store = store_choose(at.store);
    const bool metrics = at.command->name.starts_with("metrics");
    if (metrics && (name == "NAME" || name == "LABEL" || name == "--by"))
        return add_metrics(store, name != "NAME", out);
    if (name == "QUERY" || name == "TERM" || name == "PATTERN") return add_query(store, at.word, out);
    if (name == "FIELD" || name == "--by" || name == "--fields") return add_fields(store, "", "", out);
    if (name == "PATH" || name == "SLICE") return add_slices(store, out);
}

void add_names(const command_text& command, strings* out) {
    for (const option_text& option : command.options) {
        if (!option.is_positional) out->insert(out->end(), option.names.begin(), option.names.end());
    }
}

// What the command line alone knows comes first: a store may fail.
void add_candidates(const command_text& tree, const place& at, strings* out) {
    if (at.option != nullptr) {
        *out = at.option->choices;
        if (out->empty()) add_from_store(at, at.option->names.back(), out);
        return;
    }
    if (at.word.starts_with('-')) {
        add_names(*at.command, out);
        if (at.command != &tree) add_names(tree, out);
        out->emplace_back("--help");
    }
    for (const command_text& one : at.command->subcommands) out->push_back(one.name.substr(one.name.rfind(' ') + 1));
    if (!at.command->subcommands.empty()) return;
    size_t number = 0;
    for (const option_text& option : at.command->options) {
        if (!option.is_positional) continue;
        const bool is_here = number == at.positional || (option.is_repeated && number <= at.positional);
        if (is_here && !option.choices.empty()) out->insert(out->end(), option.choices.begin(), option.choices.end());
        if (is_here) add_from_store(at, option.names.at(0), out);
        number++;
    }
}

}  // namespace

strings completion_of(const command_text& tree, const strings& words) {
    deadline until;
    const observer asks = {.context = &until, .stops = deadline::is_over};
    const observer_scope observed(&asks);
    strings out;
    const place at = find_place(tree, words);
    try {
        add_candidates(tree, at, &out);
    } catch (const failure_t&) {  // no store, or too large a one: nothing is known of it
    } catch (const std::exception&) {
    }
    std::erase_if(out, [&](const std::string& one) {
        return !one.starts_with(at.word) ||
               std::any_of(one.begin(), one.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
    });
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

const char* completion_script(const std::string& shell) {
    return shell == "bash" ? BASH : shell == "zsh" ? ZSH : FISH;
}

void add_completion_command(const command& veldar) {
    static std::string shell;
    const command completion = veldar.subcommand("completion", "Print the script that completes commands in a shell");
    completion.footer(
        "In bash: source <(veldar completion bash), in ~/.bashrc; packages install it for all. It knows commands, "
        "options,\n"
        "fields, values (status=<Tab>) and slices of the store.");
    completion.text("SHELL", &shell, "bash, zsh or fish").one_of({"bash", "zsh", "fish"}).required();
    completion.run([](const tool_context&) {
        text_output out;
        output_open(&out, "never");
        output_put_commands(&out, completion_script(shell));
        output_flush(&out);
        return OUTCOME_DONE;
    });
}

}  // namespace veldar::tool
