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
  std::string note;  // at the right of the name
  std::vector<Row> rows;
  std::size_t hidden = 0;  // rows there is no room for
  int height() const { return 1 + static_cast<int>(rows.size()); }
};

// What was called for: it has rows like what was published.
template <typename ReadingOf>
void add(std::vector<Panel>& panels, const std::string& name, const Processes& processes,
         const ReadingOf& readingOf) {
  if (processes.empty()) return;
  Panel panel{name, "by call", {}, 0};
  for (const Process& process : processes) {
    Row row;
    row.key = name + ":" + process.name + " " + std::to_string(process.id);
    row.reading = readingOf(process);
    panel.rows.push_back(row);
  }
  panels.push_back(panel);
}

std::vector<Panel> panelsOf(const Picture& picture) {
  std::vector<Panel> panels;
  for (const Row& row : picture.rows) {
    if (!row.reading) continue;
    const std::string topic = topicOf(row.key);
    auto panel = std::find_if(panels.begin(), panels.end(),
                              [&](const Panel& known) { return known.topic == topic; });
    if (panel == panels.end()) {
      const auto values = picture.topics.find(topic);
      const std::size_t count = values == picture.topics.end() ? 0 : values->second;
      panels.push_back({topic, formatCount(count) + " new", {}, 0});
      panel = std::prev(panels.end());
    }
    panel->rows.push_back(row);
  }
  add(panels, "busiest", picture.calls.busiest, [](const Process& process) {
    return Reading{Unit::Percent, process.cpu, 100, 0};
  });
  add(panels, "largest", picture.calls.largest, [](const Process& process) {
    return Reading{Unit::Bytes, process.memory, 0, 0};
  });
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
    } else if (row.reading->unit == Unit::BytesPerSecond) {
      putCurve(line, row.history, graph, look);
    }
  }
  line.put(" ").putRight(right, format(*row.reading));
}

// ---- the layout

// Where the panels go: in columns filled from the top, no panel ever split.
struct Arrangement {
  std::vector<std::vector<const Panel*>> columns;
  int height = 0;
  int gap = 1;  // blank lines between two panels
};

bool arrange(const std::vector<Panel>& panels, std::size_t columnCount, Arrangement& result) {
  result.columns.assign(1, {});
  int used = 0;
  for (const Panel& panel : panels) {
    const int gap = used > 0 ? result.gap : 0;
    if (used > 0 && used + gap + panel.height() > result.height) {
      result.columns.emplace_back();
      used = panel.height();
    } else {
      used += gap + panel.height();
    }
    result.columns.back().push_back(&panel);
    if (used > result.height) return false;
  }
  return result.columns.size() <= columnCount;
}

// As low as can be, so that the columns are about equally high.
bool arrangeWithin(const std::vector<Panel>& panels, std::size_t columnCount, int lines,
                   Arrangement& result) {
  for (result.gap = 1; result.gap >= 0; --result.gap) {
    for (result.height = 1; result.height <= lines; ++result.height) {
      if (arrange(panels, columnCount, result)) return true;
    }
  }
  return false;
}

// The largest panel loses a row, or the last one goes if none has more than one.
void shrink(std::vector<Panel>& panels) {
  const auto largest = std::max_element(
      panels.begin(), panels.end(),
      [](const Panel& left, const Panel& right) { return left.rows.size() < right.rows.size(); });
  if (largest->rows.size() <= 1) {
    panels.pop_back();
  } else {
    largest->rows.pop_back();
    ++largest->hidden;
  }
}

struct Columns {
  std::size_t count;
  int width;
  int right() const { return static_cast<int>(count) * (width + kColumnGap) - kColumnGap; }
};

Columns columnsFor(int width) {
  const int count = width >= 2 * kNarrowestColumn + kColumnGap ? 2 : 1;
  return {static_cast<std::size_t>(count),
          std::min((width - (count - 1) * kColumnGap) / count, kWidestColumn)};
}

void putTitle(Line& line, const Panel& panel, int left, int width, Look look) {
  line.padTo(left).put(panel.topic + " ", Ink::Bold);
  if (panel.hidden > 0) {
    line.put(formatCount(panel.rows.size()) + " of " +
                 formatCount(panel.rows.size() + panel.hidden) + " ",
             Ink::Dim);
  }
  line.padTo(left + width - columns(panel.note) - 1, look.unicode ? "─" : "-", Ink::Dim);
  line.put(" ").putRight(left + width, panel.note, Ink::Dim);
}

void putPanel(std::vector<Line>& body, std::size_t top, const Panel& panel, int left, int width,
              Look look) {
  putTitle(body[top], panel, left, width, look);
  int tagWidth = 0;
  for (const Row& row : panel.rows) tagWidth = std::max(tagWidth, columns(tagOf(row.key)));
  tagWidth = std::min(tagWidth, width / 3);
  for (const Row& row : panel.rows) putRow(body[++top], row, left, width, tagWidth, look);
}

std::vector<Line> drawBody(std::vector<Panel> panels, Size size, int lines, Look look) {
  const Columns layout = columnsFor(size.width);
  Arrangement arrangement;
  while (!arrangeWithin(panels, layout.count, lines, arrangement)) shrink(panels);
  std::vector<Line> body(static_cast<std::size_t>(arrangement.height),
                         Line(size.width, look.colour));
  int left = 0;
  for (const auto& column : arrangement.columns) {
    int top = 0;
    for (const Panel* panel : column) {
      putPanel(body, static_cast<std::size_t>(top), *panel, left, layout.width, look);
      top += panel->height() + arrangement.gap;
    }
    left += layout.width + kColumnGap;
  }
  return body;
}

// ---- above and below

Line headline(const Picture& picture, Size size, Look look) {
  std::size_t shown = 0;
  for (const Row& row : picture.rows) shown += row.reading ? 1U : 0U;
  const std::string values = formatCount(shown) + " values";
  const int right = columnsFor(size.width).right();
  Line line(size.width, look.colour);
  line.put("vitals", Ink::Bold);
  if (right >= 44) line.put("  sensor > hub > viewer", Ink::Dim);
  if (line.column() + columns(values) < right) line.putRight(right, values, Ink::Dim);
  return line;
}

// A line of the footer: facts one below the other, as many as there is room for.
class Facts {
 public:
  Facts(const char* name, Size size, Look look)
      : width_(size.width), line_(size.width, look.colour) {
    line_.put(name, Ink::Cyan).padTo(6);
  }
  Facts& add(const std::string& amount, const std::string& what) {
    constexpr int kAmountWidth = 9;
    constexpr int kWhatWidth = 12;
    const int amountEnd = line_.column() + kAmountWidth;
    if (amountEnd + 1 + columns(what) > width_) return *this;
    line_.putRight(amountEnd, amount, Ink::Bold).put(" " + what);
    line_.padTo(amountEnd + kWhatWidth);
    return *this;
  }
  Facts& add(std::int64_t count, const std::string& what) {
    return add(formatCount(static_cast<std::uint64_t>(count)), what);
  }
  const Line& line() const { return line_; }

 private:
  int width_;
  Line line_;
};

std::vector<Line> footer(const Picture& picture, const HubStatistics& hub, Size size, Look look) {
  const auto time = [&](std::int64_t microseconds) {
    return formatMicroseconds(microseconds, look.unicode);
  };
  Facts first("hub", size, look);
  first.add(hub.published, "published").add(hub.suppressed, "unchanged");
  first.add(hub.subscriptions, "subscribed");
  Facts second("viewer", size, look);
  second.add(static_cast<std::int64_t>(picture.deliveries.total()), "delivered");
  second.add(time(picture.p50), "p50").add(time(picture.p99), "p99");
  Facts third("joined", size, look);
  if (picture.join.complete) {
    third.add(static_cast<std::int64_t>(picture.join.received), "cached");
    third.add(static_cast<std::int64_t>(picture.join.difference.missing.size()), "missed");
    third.add(time(picture.join.nanoseconds / 1000), "for all");
  } else {
    third.add("not yet:", "waiting for the sensor");
  }
  Facts fourth("calls", size, look);
  fourth.add(static_cast<std::int64_t>(picture.calls.right), "answered");
  fourth.add(time(picture.calls.p50), "p50").add(time(picture.calls.p99), "p99");
  return {first.line(), second.line(), third.line(), fourth.line()};
}

}  // namespace

std::vector<std::string> drawTable(const Picture& picture, const std::optional<HubStatistics>& hub,
                                   Size size, Look look) {
  std::vector<Line> lines{headline(picture, size, look), Line(size.width, look.colour)};
  constexpr int kAround = 7;  // headline, footer and the blank lines next to them
  const int room = size.height - kAround;
  if (room > 0) {
    for (Line& line : drawBody(panelsOf(picture), size, room, look)) lines.push_back(line);
    lines.emplace_back(size.width, look.colour);
  }
  for (Line& line : footer(picture, hub.value_or(HubStatistics()), size, look))
    lines.push_back(line);
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
    const Row& first = panel.rows[0];
    if (panel.topic == "machine") continue;  // the hour is of no interest each second
    text += (text.empty() ? "" : "  ") + panel.topic + " " + tagOf(first.key) + " " +
            format(*first.reading);
  }
  return text;
}

}  // namespace vitals
