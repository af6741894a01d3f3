#include "summarise/report_page.h"

#include <nettle/base64.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "batch/batch_progress.h"
#include "errors.h"
#include "formatted.h"
#include "summarise/excerpt.h"
#include "summarise/page_style.h"

namespace se_tool {
namespace {

std::string escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
  }
  return escaped;
}

std::string number(double value, int digits) {
  return formatted("%.*f", digits, value);
}

// With spaces between the thousands.
std::string count(std::uint64_t value) {
  std::string text = std::to_string(value);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, "\u202f");
  return text;
}

std::string data_url(const char* type, const std::string& bytes) {
  std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
  base64_encode_raw(text.data(), bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
  return std::string("data:") + type + ";base64," + text;
}

std::string figure(const std::string& value, const char* label, bool is_bad = false) {
  return std::string("<div") + (is_bad ? " class=\"bad\"" : "") + "><b>" + value + "</b><span>" +
         label + "</span></div>\n";
}

std::string figures_section(const Summary& s) {
  std::string html = "<div class=\"figures\">\n";
  html += figure(count(s.cleaned + s.failed), "recordings");
  html += figure(count(s.cleaned), "cleaned");
  html += figure(count(s.failed), "failed", s.failed > 0);
  html += figure(number(s.audio_s / 3600, s.audio_s < 36000 ? 2 : 0), "hours of audio");
  html += figure(number(s.engine_s / 3600, s.engine_s < 36000 ? 3 : 0), "core hours in the engine");
  html += figure(count(s.clipped), "results clip", s.clipped > 0);
  html += figure(count(s.silenced), "results without sound", s.silenced > 0);
  html += figure(count(s.silent_inputs), "recordings without sound");
  html += figure(count(s.cut_short), "recordings cut short", s.cut_short > 0);
  if (s.broken_lines > 0) html += figure(count(s.broken_lines), "broken lines of results", true);
  return html + "</div>\n";
}

std::string failures_section(const Summary& s) {
  if (s.reasons.empty()) return "";
  std::vector<std::pair<std::string, Summary::Reason>> reasons(s.reasons.begin(), s.reasons.end());
  std::stable_sort(reasons.begin(), reasons.end(),
                   [](const auto& a, const auto& b) { return a.second.count > b.second.count; });
  std::string html =
      "<h2 id=\"failures\">Failures by reason</h2>\n<table>"
      "<tr><th class=\"n\">files<th>reason</tr>\n";
  for (const auto& [reason, failures] : reasons) {
    html += "<tr><td class=\"n\">" + count(failures.count) + "<td>" + escape(reason) +
            "<details><summary>examples</summary>";
    for (const std::string& example : failures.examples) {
      html += "<code>" + escape(example) + "</code><br>";
    }
    html += "</details></tr>\n";
  }
  return html + "</table>\n";
}

// Bars of one distribution, or of the same figure before and after beside each other.
std::string histogram(const Distribution& front, const Distribution* back) {
  constexpr double kWidth = 420;
  constexpr double kHeight = 130;
  constexpr double kBottom = 18;
  const Distribution::Scale& scale = front.scale();
  std::uint64_t most = *std::max_element(front.bins().begin(), front.bins().end());
  if (back != nullptr) {
    most = std::max(most, *std::max_element(back->bins().begin(), back->bins().end()));
  }
  const double bar = kWidth / static_cast<double>(front.bins().size());
  std::string svg = "<svg viewBox=\"0 0 " + number(kWidth, 0) + " " + number(kHeight + kBottom, 0) +
                    "\" role=\"img\" aria-label=\"" + escape(scale.title) + "\">";
  const auto draw = [&](const Distribution& d, const char* style, double left, double width) {
    for (std::size_t i = 0; i < d.bins().size(); ++i) {
      if (d.bins()[i] == 0) continue;
      const double height =
          std::max(1.0, kHeight * static_cast<double>(d.bins()[i]) /
                            static_cast<double>(std::max<std::uint64_t>(1, most)));
      const double low = scale.low + static_cast<double>(i) * scale.step;
      svg += std::string("<rect class=\"") + style + "\" x=\"" +
             number((static_cast<double>(i) + left) * bar, 2) + "\" y=\"" +
             number(kHeight - height, 1) + "\" width=\"" + number(width * bar, 2) + "\" height=\"" +
             number(height, 1) + "\"><title>" + number(low, scale.digits) + " to " +
             number(low + scale.step, scale.digits) + " " + scale.unit + ": " + count(d.bins()[i]) +
             "</title></rect>";
    }
  };
  if (back != nullptr) draw(*back, "b2", 0.02, 0.47);
  draw(front, "b1", back != nullptr ? 0.5 : 0.05, back != nullptr ? 0.47 : 0.9);
  svg +=
      "<line class=\"axis\" x1=\"0\" x2=\"" + number(kWidth, 0) + "\" y1=\"130.5\" y2=\"130.5\"/>";
  constexpr int kTicks = 5;
  for (int i = 0; i < kTicks; ++i) {
    const double value = scale.low + (scale.high - scale.low) * i / (kTicks - 1);
    const char* anchor = i == 0 ? "start" : i == kTicks - 1 ? "end" : "middle";
    const char* edge = i == 0 && scale.low != 0             ? "≤ "
                       : i == kTicks - 1 && scale.high != 0 ? "≥ "
                                                            : "";
    svg += "<text x=\"" + number(kWidth * i / (kTicks - 1), 1) + "\" y=\"" +
           number(kHeight + kBottom - 3, 0) + "\" text-anchor=\"" + anchor + "\">" + edge +
           number(value, value == std::round(value) ? 0 : 1) + "</text>";
  }
  return svg + "</svg>";
}

std::string quantiles(const Distribution& d, const char* label) {
  const Distribution::Scale& scale = d.scale();
  if (d.count() == 0) return "";
  return std::string("<tr><td>") + label + "<td class=\"n\">" +
         number(d.quantile(0.05), scale.digits) + "<td class=\"n\"><b>" +
         number(d.quantile(0.5), scale.digits) + "</b><td class=\"n\">" +
         number(d.quantile(0.95), scale.digits) + "<td class=\"n\">" + count(d.count()) + "</tr>";
}

// "Level before" and "Level after" share a picture.
std::string distributions_section(const Summary& s) {
  std::string html = "<h2 id=\"distributions\">Distributions</h2>\n<div class=\"cards\">\n";
  for (std::size_t i = 0; i < s.distributions.size(); ++i) {
    const Distribution& d = s.distributions[i];
    if (d.count() == 0) continue;
    const std::string title = d.scale().title;
    const std::size_t before = title.rfind(" before");
    const bool is_pair = before != std::string::npos;
    const Distribution& front = is_pair ? s.distributions[++i] : d;
    html +=
        "<div class=\"card\"><h3>" + escape(title.substr(0, before)) + " (" + d.scale().unit +
        ")</h3>" + histogram(front, is_pair ? &d : nullptr) +
        "<table><tr><th><th class=\"n\">5 %<th class=\"n\">median<th class=\"n\">95 %<th "
        "class=\"n\">files</tr>" +
        (is_pair ? quantiles(d,
                             "<svg viewBox=\"0 0 10 10\" style=\"width:.7em;display:inline\">"
                             "<rect class=\"b2\" width=\"10\" height=\"10\"/></svg> before") +
                       quantiles(front,
                                 "<svg viewBox=\"0 0 10 10\" style=\"width:.7em;display:inline\">"
                                 "<rect class=\"b1\" width=\"10\" height=\"10\"/></svg> after")
                 : quantiles(d, "")) +
        "</table></div>\n";
  }
  return html + "</div>\n";
}

// Which recordings get players, and under which anchor.
class Players {
 public:
  explicit Players(double excerpt_s) : excerpt_s_(excerpt_s) {}

  void add(const ResultRecord& record, const std::string& why) {
    for (Entry& entry : entries_) {
      if (entry.record.result != record.result) continue;
      entry.why += "; " + why;
      return;
    }
    entries_.push_back({record, why});
  }

  // The name, as a link if there are players.
  std::string link(const ResultRecord& record) const {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].record.result != record.result) continue;
      return "<a href=\"#player" + std::to_string(i) + "\">" + escape(record.name) + "</a>";
    }
    return escape(record.name);
  }

  std::string section() const {
    std::string html =
        "<h2 id=\"listen\">Before and after</h2>\n<p>The strangest of each figure, then a "
        "sample chosen by hash. Start one player while the other plays: it goes on at "
        "the same place.</p>\n<div class=\"wide\">\n";
    for (std::size_t i = 0; i < entries_.size(); ++i) html += card(i);
    return html + "</div>\n";
  }

 private:
  struct Entry {
    ResultRecord record;
    std::string why;
  };

  std::string card(std::size_t index) const {
    const Entry& entry = entries_[index];
    std::string html = "<div class=\"card\" id=\"player" + std::to_string(index) + "\"><h3>" +
                       escape(entry.record.name) + "</h3><p class=\"note\">" + escape(entry.why);
    try {
      const Excerpt excerpt = make_excerpt(entry.record, excerpt_s_);
      html +=
          ". " + number(excerpt.duration_s, 1) + " s from " + number(excerpt.start_s, 0) +
          " s of " + escape(format_duration(entry.record.duration_s)) +
          "</p>\n<div class=\"players\"><span>before</span><audio controls preload=\"metadata\" "
          "src=\"" +
          data_url("audio/flac", excerpt.before) +
          "\"></audio>\n<span>after</span><audio controls preload=\"metadata\" src=\"" +
          data_url("audio/flac", excerpt.after) +
          "\"></audio></div>\n<img alt=\"Spectrograms before "
          "and after of " +
          escape(entry.record.name) + "\" src=\"" + data_url("image/png", excerpt.picture) + "\">";
    } catch (const Error& error) {
      if (error.code() > static_cast<int>(ExitCode::kSignal)) throw;
      html += "</p><p>Not to be heard here: " + escape(error.what()) + "</p>";
    }
    return html + "</div>\n";
  }

  double excerpt_s_;
  std::vector<Entry> entries_;
};

std::string strangest_section(const Summary& s, const Players& players) {
  std::string html =
      "<h2 id=\"strangest\">The strangest</h2>\n<p>By each figure the recordings "
      "farthest from its median, in units of half the range of the middle half.</p>\n"
      "<div class=\"cards\">\n";
  if (!s.silenced_examples.empty()) {
    html += "<div class=\"card\"><h3>Results without sound</h3><table>";
    for (const ResultRecord& record : s.silenced_examples) {
      html += "<tr><td>" + players.link(record) + "</tr>";
    }
    html += "</table></div>\n";
  }
  for (const Distribution& d : s.distributions) {
    if (d.count() == 0) continue;
    html += "<div class=\"card\"><h3>" + escape(d.scale().title) +
            "</h3><table><tr><th>recording<th "
            "class=\"n\">" +
            d.scale().unit + "<th class=\"n\">off</tr>";
    for (const Standout& standout : d.strangest()) {
      html += "<tr><td>" + players.link(standout.record) + "<td class=\"n\">" +
              number(standout.value, d.scale().digits) + "<td class=\"n\">" +
              number(standout.distance, 1) + "</tr>";
    }
    html += "</table></div>\n";
  }
  return html + "</div>\n";
}

std::string settings_section(const Summary& s) {
  std::string html = "<h2 id=\"settings\">Version and settings</h2>\n<table>";
  for (const auto& [settings, files] : s.settings) {
    html +=
        "<tr><td class=\"n\">" + count(files) + "<td><code>" + escape(settings) + "</code></tr>\n";
  }
  return html + "</table>\n";
}

}  // namespace

std::string report_page(const Summary& summary, const std::string& title, double excerpt_s) {
  Players players(excerpt_s);
  for (const ResultRecord& record : summary.silenced_examples) {
    players.add(record, "no sound in the result");
  }
  for (const Distribution& d : summary.distributions) {
    const std::vector<Standout> strangest = d.strangest();
    if (strangest.empty()) continue;
    players.add(strangest.front().record, std::string(d.scale().title) + " " +
                                              number(strangest.front().value, d.scale().digits) +
                                              " " + d.scale().unit);
  }
  for (const ResultRecord& record : summary.sample) players.add(record, "sample");

  std::string html =
      "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<meta name=\"viewport\" "
      "content=\"width=device-width, initial-scale=1\">\n<title>" +
      escape(title) + "</title>\n<style>" + kPageStyle + "</style></head><body>\n<h1>" +
      escape(title) + "</h1>\n";
  html += figures_section(summary);
  html += "<nav>" + std::string(summary.failed > 0 ? "<a href=\"#failures\">Failures</a>" : "");
  if (summary.cleaned > 0) {
    html +=
        "<a href=\"#strangest\">Strangest</a><a href=\"#distributions\">Distributions</a>"
        "<a href=\"#listen\">Before and after</a><a href=\"#settings\">Settings</a>";
  }
  html += "</nav>\n" + failures_section(summary);
  if (summary.cleaned > 0) {
    html += strangest_section(summary, players) + distributions_section(summary) +
            players.section() + settings_section(summary);
  }
  return html + "<script>" + kPageScript + "</script>\n</body></html>\n";
}

}  // namespace se_tool
