#include "table.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "format.h"
#include "line.h"

namespace vitals {
namespace {

constexpr int kNarrowestColumn = 38;
constexpr int kWidestColumn = 60;
constexpr int kColumnGap = 3;
constexpr int kValueWidth = 15;  // "10.1 of 24.7 GB"
constexpr int kWidestGraph = static_cast<int>(Board::kHistory);

// The rows of one topic under its name.
struct Panel {
  std::string topic;
  std::vector<const Row*> rows;
  std::size_t values = 0;
  std::size_t hidden = 0;  // rows there is no room for
  int height() const { return 1 + static_cast<int>(rows.size()) + (hidden > 0 ? 1 : 0); }
};

std::vector<Panel> panelsOf(const Picture& picture) {
  std::vector<Panel> panels;
  for (const Row& row : picture.rows) {
    if (!row.reading) continue;
    const std::string topic = topicOf(row.key);
    auto panel = std::find_if(panels.begin(), panels.end(),
                              [&](const Panel& known) { return known.topic == topic; });
    if (panel == panels.end()) {
      const auto values = picture.topics.find(topic);
      panels.push_back({topic, {}, values == picture.topics.end() ? 0 : values->second, 0});
      panel = std::prev(panels.end());
    }
    panel->rows.push_back(&row);
  }
  return panels;
}

// ---- one row

Ink inkFor(double share) {
  return share < 0.6 ? Ink::Green : share < 0.85 ? Ink::Yellow : Ink::Red;
}

void putBar(Line& line, const Reading& reading, int width, Look look) {
  const double share = std::clamp(reading.amount / reading.limit, 0.0, 1.0);
  const int end = line.column() + width;
  const int filled = static_cast<int>(std::lround(share * width));
  line.padTo(line.column() + filled, look.unicode ? "█" : "#", inkFor(share));
  line.padTo(end, look.unicode ? "░" : ".", Ink::Dim);
}

// The last looks, the newest at the right, as high as they are against the highest of them.
void putCurve(Line& line, const std::deque<double>& history, int width, Look look) {
  static const std::array<const char*, 8> kFine{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static const std::array<const char*, 8> kCoarse{"_", ".", ".", "-", "-", "=", "=", "#"};
  const auto& steps = look.unicode ? kFine : kCoarse;
  const int end = line.column() + width;
  const std::size_t shown = std::min(history.size(), static_cast<std::size_t>(width));
  line.padTo(end - static_cast<int>(shown));
  const auto first = history.end() - static_cast<std::ptrdiff_t>(shown);
  const double highest = shown == 0 ? 0 : *std::max_element(first, history.end());
  for (auto amount = first; amount != history.end(); ++amount) {
    const double share = highest > 0 ? std::max(*amount, 0.0) / highest : 0;
    line.put(steps[static_cast<std::size_t>(std::lround(share * 7))],
             share > 0 ? Ink::Cyan : Ink::Dim);
  }
}

void putRow(Line& line, const Row& row, int left, int width, int tagWidth, Look look) {
  const int right = left + width;
  line.padTo(left).put(clip(tagOf(row.key), tagWidth)).padTo(left + tagWidth + 1);
  const int graph = std::min(width - tagWidth - kValueWidth - 2, kWidestGraph);
  if (graph >= 6) {
    if (row.reading->limit > 0) {
      putBar(line, *row.reading, graph, look);
    } else if (row.reading->unit == Unit::BytesPerSecond || row.reading->unit == Unit::Load) {
      putCurve(line, row.history, graph, look);
    }
  }
  line.put(" ").putRight(right, format(*row.reading));
}

// ---- the layout

// Takes rows from the largest panels until all of them fit.
void shrink(std::vector<Panel>& panels, int lines) {
  const auto total = [&] {
    int sum = 0;
    for (const Panel& panel : panels) sum += panel.height() + 1;
    return sum;
  };
  while (!panels.empty() && total() > lines) {
    Panel& largest = *std::max_element(
        panels.begin(), panels.end(),
        [](const Panel& a, const Panel& b) { return a.rows.size() < b.rows.size(); });
    if (largest.rows.size() <= 1) {
      panels.pop_back();
      continue;
    }
    largest.rows.pop_back();
    ++largest.hidden;
  }
}

// Fills columns from the top, a panel never split; false if they do not fit.
bool distribute(const std::vector<Panel>& panels, int columnCount, int lines,
                std::vector<std::vector<const Panel*>>& filled) {
  filled.assign(1, {});
  int used = 0;
  for (const Panel& panel : panels) {
    const int needed = panel.height() + (used > 0 ? 1 : 0);  // a blank line between two
    if (used > 0 && used + needed > lines) {
      filled.emplace_back();
      used = panel.height();
    } else {
      used += needed;
    }
    filled.back().push_back(&panel);
    if (used > lines) return false;
  }
  return static_cast<int>(filled.size()) <= columnCount;
}

struct Layout {
  int columnCount;
  int columnWidth;
};

Layout layoutFor(int width) {
  const int count = width >= 2 * kNarrowestColumn + kColumnGap ? 2 : 1;
  return {count, std::min((width - (count - 1) * kColumnGap) / count, kWidestColumn)};
}

void drawColumn(std::vector<Line>& body, const std::vector<const Panel*>& panels, int left,
                int width, Look look) {
  std::size_t at = 0;
  const auto next = [&]() -> Line& { return body[std::min(at++, body.size() - 1)]; };
  for (const Panel* panel : panels) {
    if (at > 0) ++at;
    const std::string values = formatCount(panel->values) + " new";
    Line& title = next();
    title.padTo(left).put(panel->topic + " ", Ink::Bold);
    title.padTo(left + width - columns(values) - 1, look.unicode ? "─" : "-", Ink::Dim);
    title.put(" ").putRight(left + width, values, Ink::Dim);
    std::size_t longest = 4;
    for (const Row* row : panel->rows) longest = std::max(longest, tagOf(row->key).size());
    const int tagWidth = std::min(static_cast<int>(longest), std::max(width / 3, 4));
    for (const Row* row : panel->rows) putRow(next(), *row, left, width, tagWidth, look);
    if (panel->hidden > 0) {
      next().padTo(left).put("and " + std::to_string(panel->hidden) + " more", Ink::Dim);
    }
  }
}

// As low as it can be: the columns are then about equally high.
std::vector<Line> drawBody(std::vector<Panel> panels, Size size, int lines, Look look) {
  const Layout layout = layoutFor(size.width);
  std::vector<std::vector<const Panel*>> filled;
  int height = 1;
  for (;; ++height) {
    if (height > lines) {
      height = lines;
      int rows = 0;
      for (const Panel& panel : panels) rows += panel.height() + 1;
      if (rows == 0) break;
      shrink(panels, rows - 1);
      height = 0;
      continue;
    }
    if (distribute(panels, layout.columnCount, height, filled)) break;
  }
  std::vector<Line> body(static_cast<std::size_t>(height), Line(size.width, look.colour));
  for (std::size_t i = 0; i < filled.size(); ++i) {
    const int left = static_cast<int>(i) * (layout.columnWidth + kColumnGap);
    drawColumn(body, filled[i], left, layout.columnWidth, look);
  }
  return body;
}

// ---- above and below

Line headline(const Picture& picture, Size size, Look look) {
  const Layout layout = layoutFor(size.width);
  const int right = layout.columnCount * (layout.columnWidth + kColumnGap) - kColumnGap;
  std::size_t shown = 0;
  for (const Row& row : picture.rows) shown += row.reading ? 1U : 0U;
  Line line(size.width, look.colour);
  line.put("vitals", Ink::Bold).put("  sensor > hub > viewer", Ink::Dim);
  line.putRight(right, formatCount(shown) + " values", Ink::Dim);
  return line;
}

std::vector<Line> footer(const Picture& picture, const std::optional<HubStatistics>& hub, Size size,
                         Look look) {
  std::vector<Line> lines(3, Line(size.width, look.colour));
  const auto fact = [&](Line& line, const std::string& amount, const char* what) {
    line.put("  ").putRight(line.column() + 7, amount, Ink::Bold).put(" ").put(what);
    line.padTo(line.column() + 12 - columns(what));
  };
  const auto count = [](std::int64_t number) {
    return formatCount(static_cast<std::uint64_t>(number));
  };
  lines[0].put("hub    ", Ink::Cyan);
  if (hub) {
    fact(lines[0], count(hub->published), "published");
    fact(lines[0], count(hub->suppressed), "unchanged");
    fact(lines[0], count(hub->subscriptions), "subscribed");
  }
  lines[1].put("viewer ", Ink::Cyan);
  fact(lines[1], formatCount(picture.deliveries.total()), "delivered");
  fact(lines[1], formatMicroseconds(picture.p50, look.unicode), "p50");
  fact(lines[1], formatMicroseconds(picture.p99, look.unicode), "p99");
  lines[2].put("joined ", Ink::Cyan);
  if (picture.join.complete) {
    fact(lines[2], formatCount(picture.join.received), "cached");
    fact(lines[2], formatCount(picture.join.difference.missing.size()), "missed");
    fact(lines[2], formatMicroseconds(picture.join.nanoseconds / 1000, look.unicode), "for all");
  } else {
    lines[2].put("  waiting for the sensor", Ink::Dim);
  }
  return lines;
}

}  // namespace

std::vector<std::string> drawTable(const Picture& picture, const std::optional<HubStatistics>& hub,
                                   Size size, Look look) {
  std::vector<Line> lines{headline(picture, size, look), Line(size.width, look.colour)};
  constexpr int kAround = 6;  // headline, footer and the blank lines next to them
  const int room = size.height - kAround;
  if (room > 0) {
    for (Line& line : drawBody(panelsOf(picture), size, room, look)) lines.push_back(line);
    lines.emplace_back(size.width, look.colour);
  }
  for (Line& line : footer(picture, hub, size, look)) lines.push_back(line);
  if (static_cast<int>(lines.size()) > size.height) {
    lines.erase(lines.begin() + std::max(size.height, 0), lines.end());
  }
  std::vector<std::string> texts;
  for (const Line& line : lines) texts.push_back(line.text());
  return texts;
}

std::string drawLine(const Picture& picture) {
  std::string text;
  for (const Panel& panel : panelsOf(picture)) {
    const Row& first = *panel.rows[0];
    if (panel.topic == "machine") continue;  // the hour is of no interest each second
    text += (text.empty() ? "" : "  ") + panel.topic + " " + tagOf(first.key) + " " +
            format(*first.reading);
  }
  return text;
}

}  // namespace vitals
