#include "viewer.h"

#include <cstdio>
#include <stdexcept>

#include "board.h"
#include "caller.h"
#include "clock.h"
#include "feed.h"
#include "screen.h"
#include "summary.h"
#include "table.h"

namespace vitals {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPicturePeriod{200};
constexpr milliseconds kLinePeriod{1000};

Picture pictureOf(const Board& board, const Feed& feed, const Caller& caller) {
  Picture picture = board.picture();
  picture.calls = caller.report();
  picture.deliveries.newValues = static_cast<std::size_t>(feed.hub().heardCount());
  return picture;
}

void show(Board& board, const Feed& feed, const Caller& caller, Screen& screen) {
  board.remember();
  const Picture picture = pictureOf(board, feed, caller);
  if (screen.live()) {
    screen.draw(drawTable(picture, feed.hub().latest(), screen.size(), screen.look()));
  } else if (const std::string line = drawLine(picture); !line.empty()) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
}

// Until the sensor ends, the time is over or the program is to end.
void watch(Board& board, const Feed& feed, Caller& caller, const Options& options,
           StopSignals& stop) {
  Screen screen;
  const milliseconds period = screen.live() ? kPicturePeriod : kLinePeriod;
  const auto begin = std::chrono::steady_clock::now();
  auto nextShow = begin;
  bool joined = false;
  bool ready = false;
  while (feed.sensorEnded() == 0 && !stop.waitFor(milliseconds(10))) {
    const auto time = std::chrono::steady_clock::now();
    if (options.duration && time - begin >= *options.duration) return;
    // What the join brought is shown at once.
    const bool justJoined = !joined && board.joined();
    if (justJoined) caller.start();  // the sensor is there
    if (!ready && caller.settled()) {
      ready = true;
      if (options.supervisor != kNobody) sayReady(options.supervisor, "has joined and called");
    }
    if (time < nextShow && !justJoined) continue;
    show(board, feed, caller, screen);
    joined = joined || justJoined;
    nextShow = time + period;
  }
}

}  // namespace

int runViewer(const Options& options, StopSignals& stop) {
  Board board;
  Feed feed(*options.ports, board);
  if (!feed.hub().waitForLaterThan(0, kHubPatience, &stop)) {
    if (stop.waitFor(milliseconds(0))) return 0;
    throw std::runtime_error("there is no hub");
  }
  Caller caller(endpoint(options.ports->calls), [&] { return feed.sensorEnded() != 0; });
  feed.join();
  watch(board, feed, caller, options, stop);
  caller.stop();

  // The hub's last word is that after the sensor's.
  const bool sensorEnded = feed.sensorEnded() != 0;
  const std::int64_t end = sensorEnded ? feed.sensorEnded() : now();
  const bool heard = feed.hub().waitForLaterThan(end, std::chrono::seconds(2), nullptr);
  const Summary summary = summarize(pictureOf(board, feed, caller),
                                    heard ? feed.hub().latest() : std::nullopt, sensorEnded);
  std::fputs(summary.text.c_str(), stdout);
  return summary.good ? 0 : 1;
}

}  // namespace vitals
