#include "tools/veldar/commands/manual.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/libveldar/store/disk_file.h"
#include "tools/libveldar/store/failure.h"
#include "tools/libveldar/store/visible_text.h"
#include "tools/veldar/commands/examples.h"

namespace veldar::tool {

namespace {

constexpr char STATUSES[] =
    ".TP\n.B 0\nDone; something was found.\n"
    ".TP\n.B 1\nNothing was found.\n"
    ".TP\n.B 2\nThe arguments, the query or an option are wrong.\n"
    ".TP\n.B 3\nSomething could not be read; what could be done has been done.\n"
    ".TP\n.B 4\nDamage was found.\n"
    ".TP\n.B 5\nDisk or memory refused.\n"
    ".TP\n.B 130\nInterrupted.\n";
constexpr char ENVIRONMENT[] =
    ".SH ENVIRONMENT\n"
    ".TP\n.B VELDAR_STORE\nThe store, where -s is not given.\n"
    ".TP\n.B NO_COLOR\nNo colours, where --color is not given.\n"
    ".TP\n.B OPTIMISTIC_ABOUT_FILE_LOCKING\n1: go on where a file system has no dependable locks.\n";

// Text that roff takes for itself, and characters by their numbers, as pages are ASCII.
std::string plain(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        const size_t length = utf8_length(text.substr(i));
        if (length > 1) {
            uint32_t code = static_cast<unsigned char>(c) & (0x7fu >> length);
            for (size_t k = 1; k < length; k++) code = code << 6 | (static_cast<unsigned char>(text[++i]) & 0x3fu);
            out += fmt::format("\\[u{:04X}]", code);
        } else if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else if (c == '\'') {
            out += "\\(aq";
        } else if (c == '`') {
            out += "\\(ga";
        } else if (c == '^') {
            out += "\\(ha";
        } else if (c == '~') {
            out += "\\(ti";
        } else {
            out += c;
        }
    }
    return out;
}

// The same as a whole line, which must not look like a request.
std::string line_of(std::string_view text) {
    const std::string out = plain(text);
    return (out.starts_with('.') ? "\\&" : "") + out + "\n";
}

std::string lines_of(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        out += end == 0 ? ".PP\n" : line_of(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return out;
}

std::string heading(const std::string& title, int section, const std::string& name, const std::string& version) {
    return fmt::format(".TH {} {} \"\" \"{}\" \"Veldar\"\n.SH NAME\n{}", plain(title), section, plain(version),
                       line_of(name));
}

std::string names_of(const option_text& option) {
    std::string names;
    for (const std::string& name : option.names) names += (names.empty() ? "\\fB" : ", \\fB") + plain(name) + "\\fR";
    if (option.is_positional) {
        names = "\\fI" + plain(option.names.at(0)) + "\\fR" + (option.is_repeated ? " ..." : "");
    } else if (!option.choices.empty()) {
        names += " ";
        for (const std::string& choice : option.choices) {
            names += (names.ends_with(' ') ? "" : "|") + ("\\fB" + plain(choice) + "\\fR");
        }
    } else if (!option.type.empty()) {
        names += " \\fI" + plain(option.type) + "\\fR";
    }
    return names;
}

std::string options_of(const command_text& command) {
    std::string out;
    for (const option_text& option : command.options) {
        out += ".TP\n" + names_of(option) + "\n" + lines_of(option.help);
        if (!option.default_value.empty()) out += line_of("Default: " + option.default_value);
    }
    return out;
}

std::string synopsis_of(const command_text& command) {
    std::string out = ".SH SYNOPSIS\n.B veldar " + plain(command.name) + "\n";
    out += "[\\fIOPTION\\fR ...]";
    for (const option_text& option : command.options) {
        if (!option.is_positional) continue;
        const std::string name = names_of(option);
        out += option.is_required ? " " + name : " [" + name + "]";
    }
    if (!command.subcommands.empty()) out += " \\fICOMMAND\\fR";
    return out + "\n";
}

std::string examples_of(const std::string& command) {
    std::string out = ".SH EXAMPLES\n";
    for (const command_example& example : command_examples()) {
        if (command.empty() ? std::string_view(example.command) != "search" : command != example.command) continue;
        out += ".TP\n" + line_of(std::string(example.does) + ":");
        out += ".B veldar " + plain(example.line) + "\n";
    }
    return out;
}

std::string page_name(const std::string& command) {
    std::string name = "veldar" + (command.empty() ? "" : "-" + command);
    std::replace(name.begin(), name.end(), ' ', '-');
    return name;
}

std::string lower_first(std::string text) {
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

void write(const std::string& path, const std::string& text) {
    if (!disk_replace_file(path, text, false)) fail_io("cannot write", path, errno);
}

void write_commands(const command_text& tree, const std::string& version, const std::string& directory) {
    for (const command_text& command : tree.subcommands) {
        write(directory + "/" + page_name(command.name) + ".1", manual_of_command(command, version));
        write_commands(command, version, directory);
    }
}

// Markdown within a line.
std::string inline_text(std::string_view text) {
    std::string out;
    bool code = false, bold = false;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '`') {
            code = !code;
            out += code ? "\\fB" : bold ? "\\fB" : "\\fR";
        } else if (!code && text.substr(i).starts_with("**")) {
            bold = !bold;
            out += bold ? "\\fB" : "\\fR";
            i++;
        } else if (!code && text[i] == '[') {
            const size_t close = text.find("](", i), end = text.find(')', i);
            if (close == std::string_view::npos || end == std::string_view::npos || end < close) {
                out += '[';
                continue;
            }
            out += inline_text(text.substr(i + 1, close - i - 1));
            i = end;
        } else {
            const size_t length = std::max<size_t>(utf8_length(text.substr(i)), 1);
            out += plain(text.substr(i, length));
            i += length - 1;
        }
    }
    return (out.starts_with('.') || out.starts_with('\'') ? "\\&" : "") + out;
}

std::vector<std::string> cells_of(std::string_view row) {
    std::vector<std::string> cells;
    std::string cell;
    bool code = false;
    for (size_t i = 1; i < row.size(); i++) {
        code ^= row[i] == '`';
        if (row[i] == '\\' && i + 1 < row.size() && row[i + 1] == '|') {
            cell += row[++i];
        } else if (row[i] == '|' && !code) {
            const size_t begin = cell.find_first_not_of(' '), last = cell.find_last_not_of(' ');
            cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, last - begin + 1));
            cell.clear();
        } else {
            cell += row[i];
        }
    }
    return cells;
}

// A table as a list: the first cell of a row, then the others.
std::string table_of(const std::vector<std::string_view>& rows) {
    std::string out;
    for (size_t i = 2; i < rows.size(); i++) {
        const std::vector<std::string> cells = cells_of(rows[i]);
        if (cells.empty()) continue;
        out += ".TP\n" + inline_text(cells[0].empty() ? std::string_view("\\") : std::string_view(cells[0])) + "\n";
        for (size_t k = 1; k < cells.size(); k++) out += (k > 1 ? "; " : "") + inline_text(cells[k]);
        out += "\n";
    }
    return out + ".PP\n";
}

struct markdown_reader {
    std::string out;
    std::vector<std::string_view> table;
    bool in_fence = false, in_code = false;
};

void end_blocks(markdown_reader* reader) {
    if (reader->in_code) reader->out += ".fi\n.RE\n";
    if (!reader->table.empty()) reader->out += table_of(reader->table);
    reader->in_code = false;
    reader->table.clear();
}

void put_code(markdown_reader* reader, std::string_view line) {
    if (!reader->in_code) reader->out += ".PP\n.RS 4\n.nf\n";
    reader->in_code = true;
    reader->out += line_of(line);
}

void take_line(markdown_reader* reader, std::string_view line) {
    if (line.starts_with("```")) {
        end_blocks(reader);
        reader->in_fence = !reader->in_fence;
    } else if (reader->in_fence || line.starts_with("    ")) {
        put_code(reader, reader->in_fence ? line : line.substr(4));
    } else if (line.starts_with('|')) {
        reader->table.push_back(line);
    } else if (line.empty()) {
        if (!reader->in_code) end_blocks(reader);
        if (!reader->in_code) reader->out += ".PP\n";
    } else {
        end_blocks(reader);
        const size_t level = line.find_first_not_of('#');
        if (level == 1) {
            reader->out += ".SH DESCRIPTION\n";
        } else if (level > 1 && level != std::string_view::npos && line[0] == '#') {
            reader->out += (level == 2 ? ".SH " : ".SS ") + plain(line.substr(level + 1)) + "\n";
        } else if (line.starts_with("- ")) {
            reader->out += ".IP \\(bu 2\n" + inline_text(line.substr(2)) + "\n";
        } else if (!line.starts_with("![")) {
            reader->out += inline_text(line) + "\n";
        }
    }
}

}  // namespace

std::string manual_of_tool(const command_text& tree, const std::string& version) {
    std::string out = heading("VELDAR", 1, "veldar - an index for logs and other events with a time", version);
    out += ".SH SYNOPSIS\n.B veldar\n[\\fB\\-s\\fR \\fISTORE\\fR] \\fICOMMAND\\fR [\\fIARGUMENT\\fR ...]\n";
    out += ".SH DESCRIPTION\n" + line_of(tree.help);
    out += lines_of(
        "Logs are loaded into a store, each line once; questions are answered from the store's index, and the lines "
        "themselves are read where they lie. Each command has a page of its own, such as veldar-search(1), and "
        "--help.");
    std::string group;
    for (const command_text& command : tree.subcommands) {
        if (command.heading != group) out += ".SH " + plain(group = command.heading) + "\n";
        out += ".TP\n.B " + plain(command.name) + "\n" + line_of(command.help);
    }
    out += ".SH OPTIONS\n" + options_of(tree);
    out.append(".SH EXIT STATUS\n").append(STATUSES).append(examples_of("")).append(ENVIRONMENT);
    return out + ".SH SEE ALSO\nveldar\\-query(7), veldar\\-format(5), dictscan(1)\n";
}

std::string manual_of_command(const command_text& command, const std::string& version) {
    const std::string name = page_name(command.name);
    std::string title = name;
    std::transform(title.begin(), title.end(), title.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string out = heading(title, 1, name + " - " + lower_first(command.help), version);
    const size_t status = command.footer.find("Exit status:");
    out += synopsis_of(command) + ".SH DESCRIPTION\n" + line_of(command.help + ".") + ".PP\n";
    out += lines_of(std::string_view(command.footer).substr(0, status));
    if (!command.subcommands.empty()) out += ".SH COMMANDS\n";
    for (const command_text& one : command.subcommands) {
        out += ".TP\n.B " + plain(one.name) + "\n" + line_of(one.help);
    }
    if (!command.options.empty()) out += ".SH OPTIONS\n" + options_of(command);
    out += ".SH EXIT STATUS\n";
    if (status != std::string::npos) out += lines_of(std::string_view(command.footer).substr(status + 13)) + ".PP\n";
    out += STATUSES;
    if (command.subcommands.empty()) {
        out += examples_of(command.name);
    } else {
        out += ".SH EXAMPLES\nSee the pages of its commands.\n";
    }
    return out.append(ENVIRONMENT).append(".SH SEE ALSO\nveldar(1), veldar\\-query(7)\n");
}

std::string manual_of_dictscan(const std::string& version) {
    return heading("DICTSCAN", 1, "dictscan - list the terms of one slice that match a pattern", version) +
           ".SH SYNOPSIS\n.B dictscan\n\\fISLICE\\fR \\fIPATTERN\\fR\n.SH DESCRIPTION\n" +
           lines_of(
               "Prints one line a term: its number, the events that have it, the term; before them the pattern as it "
               "is "
               "understood. In the pattern * stands for any characters.") +
           ".SH EXIT STATUS\n.TP\n.B 0\nDone.\n.TP\n.B 1\nThe slice cannot be read, or an argument is missing.\n"
           ".SH EXAMPLES\n.TP\nThe values of a field:\n"
           ".B dictscan .veldar/bucket\\-000001/*.tsidx \\(aqstatus::*\\(aq\n"
           ".TP\nAll terms:\n.B dictscan .veldar/bucket\\-000001/*.tsidx \\(aq\\(aq\n"
           ".SH SEE ALSO\nveldar(1), veldar\\-terms(1)\n";
}

std::string manual_of_markdown(std::string_view markdown, const std::string& title, int section,
                               const std::string& name, const std::string& version) {
    markdown_reader reader;
    reader.out = heading(title, section, name, version);
    while (!markdown.empty()) {
        const size_t end = std::min(markdown.find('\n'), markdown.size());
        take_line(&reader, markdown.substr(0, end));
        markdown.remove_prefix(std::min(end + 1, markdown.size()));
    }
    end_blocks(&reader);
    return reader.out;
}

void manual_write(const command_text& tree, const std::string& version, const std::string& directory,
                  const std::string& docs) {
    write(directory + "/veldar.1", manual_of_tool(tree, version));
    write_commands(tree, version, directory);
    write(directory + "/dictscan.1", manual_of_dictscan(version));
    struct page {
        const char *file, *title;
        int section;
        const char* name;
    };
    constexpr page PAGES[] = {
        {"query-language.md", "VELDAR-QUERY", 7, "veldar-query - the query language of veldar"},
        {"file-format.md", "VELDAR-FORMAT", 5, "veldar-format - the files of an index"},
    };
    for (const page& one : PAGES) {
        std::string text;
        const std::string from = docs + "/" + one.file;
        if (!disk_read_file(from, &text)) fail_io("cannot read", from, errno);
        const std::string name = std::string(one.name).substr(0, std::string_view(one.name).find(' '));
        write(fmt::format("{}/{}.{}", directory, name, one.section),
              manual_of_markdown(text, one.title, one.section, one.name, version));
    }
}

}  // namespace veldar::tool
