#include "line.h"

#include <algorithm>

namespace vitals {
namespace {

bool beginsCodePoint(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }

const char* escape(Ink ink) {
  switch (ink) {
    case Ink::Bold:
      return "\x1b[1m";
    case Ink::Dim:
      return "\x1b[2m";
    case Ink::Green:
      return "\x1b[32m";
    case Ink::Yellow:
      return "\x1b[33m";
    case Ink::Red:
      return "\x1b[31m";
    case Ink::Cyan:
      return "\x1b[36m";
    case Ink::Plain:
      break;
  }
  return "";
}

}  // namespace

int columns(const std::string& text) {
  return static_cast<int>(std::count_if(text.begin(), text.end(), beginsCodePoint));
}

std::string clip(const std::string& text, int width) {
  int begun = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (beginsCodePoint(text[i]) && ++begun > width) return text.substr(0, i);
  }
  return text;
}

Line& Line::put(const std::string& text, Ink ink) {
  const std::string shown = clip(text, width_ - column_);
  if (shown.empty()) return *this;
  column_ += columns(shown);
  if (ink == Ink::Plain || !colour_) {
    text_ += shown;
  } else {
    text_ += escape(ink) + shown + "\x1b[0m";
  }
  return *this;
}

Line& Line::padTo(int column, const std::string& fill, Ink ink) {
  std::string padding;
  for (int i = column_; i < column; ++i) padding += fill;
  return put(padding, ink);
}

Line& Line::putRight(int column, const std::string& text, Ink ink) {
  padTo(column - columns(text));
  return put(clip(text, column - column_), ink);
}

}  // namespace vitals
