// Cases kept as data: tab-separated tables, JSON documents and patterns to match answers with,
// and command lines with the status and output each must give.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nk/json.h>

namespace nk::test {

// The whole file; a test failure when it cannot be read.
std::string read_data(const std::string& path);
nk::json_ptr load_json(const std::string& path);

// The rows of a tab-separated file, blank and '#' lines left out, each field with C escapes
// (\t \n \r \\ \xNN) undone.
std::vector<std::vector<std::string>> read_table(const std::string& path);
std::string unescape(const std::string& text);

// Every "{name}" in text replaced by its value.
std::string expand(std::string text, const std::map<std::string, std::string>& values);

// Fails the test where `got` differs from the pattern `want`: objects hold at least the
// pattern's members (null: the member is absent), arrays are matched element by element, a
// string "$name" binds a variable at first sight and must equal it afterwards, "~regex" (or
// "$name~regex") must match the value's text, anything else must be equal.
void match_json(const json_t* want, const json_t* got, std::map<std::string, std::string>& vars,
                const std::string& at = "");

// Runs each row of a table "command line <tab> exit status <tab> text..." after expand(), with
// stderr joined to stdout; the output must hold each text ("!text": must not).
void check_commands(const std::string& table, const std::map<std::string, std::string>& values);

}  // namespace nk::test
