// What the command lines of all commands have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

namespace se_tool {

// Throws an Error (usage).
[[noreturn]] void usage_error(const std::string& line);

// Sets up help in the tool's form: `usage` is the line behind "Usage: ", the descriptions of the
// options say all there is to say about types and defaults.
void prepare_command_line(CLI::App& app, const std::string& usage);

// Parses. Returns what --help or --version asks to print, nothing otherwise. Throws an Error
// (usage) of one line, also for empty values: an empty text is a variable that was never set, and
// taken as "not given" it would change the result without a word.
std::string parse_command_line(CLI::App& app, int argc, const char* const* argv);

// -j: recordings worked on at a time.
void add_jobs_option(CLI::App& app, std::size_t& jobs);

// --delay of the echo behind the reference, for parse_delay(): its value in ms; none for "auto" and
// where it is not given. Throws an Error (usage).
void add_delay_option(CLI::App& app, std::string& delay);
std::optional<int> parse_delay(const std::string& delay);

// Whole texts only; `option` names the text in the error.
double parse_number(const std::string& text, const std::string& option);
int parse_whole_number(const std::string& text, const std::string& option);

// A number of bytes above 0; K, M, G and T behind it stand for powers of 1024.
std::uint64_t parse_size(const std::string& text, const std::string& option);

}  // namespace se_tool
