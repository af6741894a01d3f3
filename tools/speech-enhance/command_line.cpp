#include "command_line.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "errors.h"
#include "speechenhance/stream.h"

namespace se_tool {
namespace {

// CLI11's help without its own account of types, checks and defaults.
class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(std::string usage) : usage_(std::move(usage)) { column_width(25); }

  std::string make_usage(const CLI::App*, std::string) const override {
    return "\nUsage: " + usage_ + "\n";
  }
  std::string make_option_name(const CLI::Option* option, bool is_positional) const override {
    std::string name = option->get_name(is_positional, !is_positional);
    name.erase(std::remove(name.begin(), name.end(), '!'), name.end());
    return name.substr(0, name.find('{'));
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string& value = option->get_option_text();
    return value.empty() ? "" : " " + value;
  }

 private:
  std::string usage_;
};

void refuse_empty_texts(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& text : option->results()) {
      if (!text.empty()) continue;
      usage_error(option->get_name() + ": empty, leave it out or give it a value");
    }
  }
}

// The number that is the whole text; `kind` says what the text is not.
template <class Number>
Number parse_whole_text(const std::string& text, const std::string& option, const char* kind) {
  Number value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end)
    usage_error(option + ": \"" + text + "\" is not " + kind);
  return value;
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

void usage_error(const std::string& line) {
  throw Error(ExitCode::kUsage, line);
}

void prepare_command_line(CLI::App& app, const std::string& usage) {
  app.formatter(std::make_shared<HelpFormatter>(usage));
}

std::string parse_command_line(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return app.help();
  } catch (const CLI::CallForVersion& version) {
    return std::string(version.what()) + "\n";
  } catch (const CLI::ParseError& error) {
    usage_error(first_line(error.what()) + " (see --help)");
  } catch (const std::out_of_range&) {  // what CLI11 lets through of std::stoll
    usage_error("a number behind a switch is too large (see --help)");
  }
  refuse_empty_texts(app);
  return "";
}

void add_jobs_option(CLI::App& app, std::size_t& jobs) {
  app.add_option("-j,--jobs", jobs,
                 "Recordings worked on at a time (default: as many\n"
                 "as there are processors for this process)")
      ->option_text("N")
      ->check(CLI::Range(1, 1024));
}

void add_delay_option(CLI::App& app, std::string& delay) {
  app.add_option("--delay", delay,
                 "By how many ms the echo lags the reference (-500 to\n"
                 "500; default auto: found in the sound, followed)")
      ->option_text("MS");
}

std::optional<int> parse_delay(const std::string& delay) {
  if (delay.empty() || delay == "auto") return std::nullopt;
  const int ms = parse_whole_number(delay, "--delay");
  if (std::abs(ms) > SE_STREAM_MAX_DELAY_MS) {
    usage_error("--delay: " + delay + " ms is outside -500 to 500 ms");
  }
  return ms;
}

double parse_number(const std::string& text, const std::string& option) {
  return parse_whole_text<double>(text, option, "a number");
}

int parse_whole_number(const std::string& text, const std::string& option) {
  return parse_whole_text<int>(text, option, "a whole number");
}

std::uint64_t parse_size(const std::string& text, const std::string& option) {
  constexpr std::string_view kUnits = "KMGT";
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  const std::size_t unit = stop + 1 == end ? kUnits.find(*stop) : std::string_view::npos;
  const std::size_t shift = unit == std::string_view::npos ? 0 : 10 * (unit + 1);
  const bool understood = error == std::errc() && (stop == end || shift != 0);
  if (!understood || value == 0 || value > UINT64_MAX >> shift) {
    usage_error(option + ": \"" + text + "\" is not a size such as 500M or 16G");
  }
  return value << shift;
}

}  // namespace se_tool
