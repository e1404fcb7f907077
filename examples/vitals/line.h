#ifndef VITALS_LINE_H
#define VITALS_LINE_H

#include <string>

namespace vitals {

enum class Ink { Plain, Bold, Dim, Green, Yellow, Red, Cyan };

/// A line of a picture that never grows wider than it may. A column is a code point here: nothing
/// that is shown has double width.
class Line {
 public:
  Line(int width, bool colour) : width_(width), colour_(colour) {}

  int column() const { return column_; }
  const std::string& text() const { return text_; }

  Line& put(const std::string& text, Ink ink = Ink::Plain);
  /// Spaces, or copies of `fill`, up to a column.
  Line& padTo(int column, const std::string& fill = " ", Ink ink = Ink::Plain);
  /// Puts the text so that it ends at a column; it is cut at its right if there is no room.
  Line& putRight(int column, const std::string& text, Ink ink = Ink::Plain);

 private:
  int width_;
  bool colour_;
  int column_ = 0;
  std::string text_;
};

/// How many columns a text takes.
int columns(const std::string& text);
/// As much of the beginning as fits.
std::string clip(const std::string& text, int width);

}  // namespace vitals

#endif
