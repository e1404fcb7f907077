#include "screen.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstring>

namespace vitals {
namespace {

constexpr char kBegin[] = "\x1b[?1049h\x1b[?25l\x1b[2J";  // second screen, no cursor, empty
constexpr char kEnd[] = "\x1b[?25h\x1b[?1049l";

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

// A picture goes out in one piece, so that none is ever seen half drawn.
void writeAll(const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (count <= 0) return;  // the terminal has gone; the next signal says so
    done += static_cast<std::size_t>(count);
  }
}

}  // namespace

bool isLiveTerminal() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && isSet("TERM") && std::strcmp(terminal, "dumb") != 0;
}

Screen::Screen() : live_(isLiveTerminal()) {
  std::setlocale(LC_CTYPE, "");
  look_.unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  look_.colour = live_ && !isSet("NO_COLOR");
  if (live_) writeAll(kBegin);
}

Screen::~Screen() {
  if (live_) restore();
}

void Screen::restore() { writeAll(kEnd); }

Size Screen::size() const {
  winsize window{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 || window.ws_row == 0) {
    return {};
  }
  return {window.ws_col, window.ws_row};
}

void Screen::draw(const std::vector<std::string>& lines) {
  std::string picture = "\x1b[H";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) picture += "\r\n";
    picture += lines[i] + "\x1b[K";
  }
  writeAll(picture + "\x1b[J");
}

}  // namespace vitals
