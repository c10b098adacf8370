// Manual pages: of the commands from the command line's own tree, of the query language and the files from docs/.
#pragma once

#include <string>
#include <string_view>

#include "tools/veldar/commands/command_tree.h"

namespace veldar::tool {

// veldar(1).
std::string manual_of_tool(const command_text& tree, const std::string& version);
// veldar-COMMAND(1).
std::string manual_of_command(const command_text& command, const std::string& version);
std::string manual_of_dictscan(const std::string& version);
// A page from Markdown: headings, paragraphs, lists, code, tables; `title` such as "VELDAR-QUERY", `name` its line under
// NAME.
std::string manual_of_markdown(std::string_view markdown, const std::string& title, int section,
                               const std::string& name, const std::string& version);

// Writes every page into a directory that exists: veldar.1, veldar-load.1, ..., and from the directory `docs` the
// others. Throws failure_t.
void manual_write(const command_text& tree, const std::string& version, const std::string& directory,
                  const std::string& docs);

}  // namespace veldar::tool
