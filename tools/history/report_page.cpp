// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/report_page.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <string_view>

#include "tools/events/path_pattern.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::history {
namespace {

constexpr const char* kHead = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8"/>
<meta name="viewport" content="width=device-width, initial-scale=1"/>
<title>What happened on the share</title>
<style>
:root { color-scheme: light dark; --text: #1b1f24; --quiet: #59636e; --page: #ffffff; --line: #d1d9e0;
  --created: #2da44e; --changed: #0969da; --renamed: #bf8700; --deleted: #cf222e; --read: #8c959f;
  --other: #8250df; }
@media (prefers-color-scheme: dark) {
  :root { --text: #e6edf3; --quiet: #9198a1; --page: #0d1117; --line: #3d444d;
    --created: #3fb950; --changed: #4493f8; --renamed: #d29922; --deleted: #f85149; --read: #7d8590;
    --other: #ab7df8; } }
body { font: 15px/1.5 system-ui, sans-serif; color: var(--text); background: var(--page);
  max-width: 60rem; margin: 2rem auto; padding: 0 1rem; }
h1 { font-size: 1.5rem; } h2 { font-size: 1.15rem; margin-top: 2rem; }
p, td, th { overflow-wrap: anywhere; }
table { border-collapse: collapse; width: 100%; }
td, th { text-align: left; padding: .25rem .5rem; border-bottom: 1px solid var(--line); }
td.number, th.number { text-align: right; white-space: nowrap; }
svg { width: 100%; height: auto; } svg text { fill: var(--quiet); font-size: 11px; }
.quiet { color: var(--quiet); }
.created { fill: var(--created); } .changed { fill: var(--changed); } .renamed { fill: var(--renamed); }
.deleted { fill: var(--deleted); } .read { fill: var(--read); } .other { fill: var(--other); }
.axis { stroke: var(--line); }
</style>
</head>
<body>
)html";

// Bytes that are not UTF-8, or that a page must not hold, become the replacement character.
std::string valid(std::string_view bytes) {
  constexpr const char* kReplacement = "\xef\xbf\xbd";
  std::string text;
  for (std::size_t at = 0; at < bytes.size();) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    std::size_t length = first < 0x80 ? 1 : first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    uint32_t value = length == 1 ? first : first & (0xffU >> (length + 1));
    bool is_sound = first < 0x80 || (first >= 0xc2 && first <= 0xf4);
    for (std::size_t i = 1; i < length && is_sound; ++i) {
      const unsigned next = at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0;
      is_sound = (next & 0xc0U) == 0x80U;
      value = value << 6 | (next & 0x3fU);
    }
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    is_sound = is_sound && value >= kLeast[length] && value <= 0x10ffff &&
               (value < 0xd800 || value > 0xdfff) && value != 0xfffe && value != 0xffff &&
               (value >= 0x20 || value == '\t');
    text += is_sound ? std::string(bytes.substr(at, length)) : kReplacement;
    at += is_sound ? length : 1;
  }
  return text;
}

std::string escaped(std::string_view bytes) {
  std::string text;
  for (const char c : valid(bytes)) {
    switch (c) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      default:
        text += c;
    }
  }
  return text;
}

const char* doing(std::size_t i) { return word_of(static_cast<Doing>(i)); }

std::string label_of(int64_t begin, bool by_day) {
  return text::local_time(begin).substr(0, by_day ? 10 : 16);
}

std::string summary(const Counts& counts) {
  std::string text;
  for (std::size_t i = 0; i < kDoings; ++i) {
    if (counts[i] == 0) continue;
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", counts[i], doing(i));
  }
  return text.empty() ? "nothing" : text;
}

// One column for each step, its kinds of records on top of each other.
std::string picture_of_steps(const Report& report) {
  constexpr double kWidth = 960, kHeight = 220, kLeft = 50, kBottom = 200;
  constexpr std::size_t kMarks = 8;  // times under the axis
  uint64_t most = 1;
  for (const auto& [begin, counts] : report.steps) most = std::max(most, sum_of(counts));
  const std::size_t count = std::max<std::size_t>(1, report.steps.size());
  const double step = (kWidth - kLeft) / static_cast<double>(count);
  std::string svg = fmt::format(
      "<svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"Records by {}\">\n"
      "<text x=\"{}\" y=\"12\" text-anchor=\"end\">{}</text>\n"
      "<line class=\"axis\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n",
      kWidth, kHeight, report.by_day ? "day" : "hour", kLeft - 5, most, kLeft, kBottom, kWidth,
      kBottom);
  std::size_t place = 0;
  for (const auto& [begin, counts] : report.steps) {
    const double x = kLeft + step * static_cast<double>(place);
    double y = kBottom;
    std::string bars;
    for (std::size_t i = 0; i < kDoings; ++i) {
      if (counts[i] == 0) continue;
      const double height =
          static_cast<double>(counts[i]) * (kBottom - 10) / static_cast<double>(most);
      y -= height;
      bars += fmt::format(
          "<rect class=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\"/>",
          doing(i), x, y, std::max(0.5, step * 0.9), height);
    }
    if (!bars.empty()) {
      svg += fmt::format("<g><title>{}: {}</title>{}</g>\n",
                         escaped(label_of(begin, report.by_day)), summary(counts), bars);
    }
    if (place % std::max<std::size_t>(1, count / kMarks) == 0) {
      svg += fmt::format("<text x=\"{:.1f}\" y=\"{}\">{}</text>\n", x, kBottom + 14,
                         escaped(label_of(begin, report.by_day).substr(5)));
    }
    ++place;
  }
  return svg + "</svg>\n";
}

// A bar as wide as its share of the greatest one.
std::string bar_of(const Counts& counts, uint64_t most) {
  std::string svg = "<svg viewBox=\"0 0 200 10\" aria-hidden=\"true\">";
  double x = 0;
  for (std::size_t i = 0; i < kDoings; ++i) {
    if (counts[i] == 0) continue;
    const double width = static_cast<double>(counts[i]) * 200 / static_cast<double>(most);
    svg += fmt::format("<rect class=\"{}\" x=\"{:.1f}\" y=\"0\" width=\"{:.1f}\" height=\"10\"/>",
                       doing(i), x, width);
    x += width;
  }
  return svg + "</svg>";
}

template <typename Items, typename Name>
std::string table_of(const Items& items, const char* heading, Name name) {
  if (items.empty()) return "<p class=\"quiet\">None.</p>\n";
  const uint64_t most = sum_of(items.front().counts);
  std::string table = fmt::format(
      "<table><tr><th>{}</th><th class=\"number\">records</th><th class=\"number\">deleted</th>"
      "<th style=\"width: 40%\"></th></tr>\n",
      heading);
  for (const auto& item : items) {
    table += fmt::format(
        "<tr><td>{}</td><td class=\"number\">{}</td><td class=\"number\">{}</td>"
        "<td title=\"{}\">{}</td></tr>\n",
        escaped(name(item)), sum_of(item.counts),
        item.counts[static_cast<std::size_t>(Doing::kDeleted)], summary(item.counts),
        bar_of(item.counts, most));
  }
  return table + "</table>\n";
}

std::string legend() {
  std::string text = "<p class=\"quiet\">";
  for (std::size_t i = 0; i < kDoings; ++i) {
    text += fmt::format(
        "<svg viewBox=\"0 0 10 10\" style=\"width: .8em\" aria-hidden=\"true\"><rect class=\"{0}\" "
        "width=\"10\" height=\"10\"/></svg> {0} ",
        doing(i));
  }
  return text + "</p>\n";
}

std::string table_of_notices(const Report& report) {
  if (report.notices.empty())
    return "<p class=\"quiet\">No mass changes and no gaps were recorded.</p>\n";
  std::string table = "<table><tr><th>time</th><th>what</th></tr>\n";
  for (const Notice& notice : report.notices) {
    table += fmt::format("<tr><td>{}</td><td>{}</td></tr>\n",
                         escaped(text::local_time(notice.time)), escaped(notice.text));
  }
  return table + "</table>\n";
}

}  // namespace

std::string report_page(const Report& report, events::People& people) {
  std::string page = kHead;
  page +=
      fmt::format("<h1>What happened on the share</h1>\n<p>{} to {}: {} ({}).</p>\n",
                  escaped(text::local_time(report.since)), escaped(text::local_time(report.until)),
                  text::counted(sum_of(report.counts), "record"), summary(report.counts));
  page += fmt::format("<h2>By {}</h2>\n", report.by_day ? "day" : "hour");
  page += picture_of_steps(report) + legend();
  page += "<h2>Mass changes and gaps</h2>\n" + table_of_notices(report);
  page += "<h2>Most active users</h2>\n";
  page += table_of(report.users, "user",
                   [&people](const Report::User& user) { return people.shown(user.uid); });
  page += "<h2>Most active folders</h2>\n";
  page += table_of(report.folders, "folder", [](const Report::Folder& folder) {
    return std::string(events::shown_path(folder.path));
  });
  return page + "</body>\n</html>\n";
}

}  // namespace tavrix::history
