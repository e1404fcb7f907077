#ifndef VITALS_SCREEN_H
#define VITALS_SCREEN_H

#include <string>
#include <vector>

namespace vitals {

struct Size {
  int width = 80;
  int height = 24;
};

/// What the output can show.
struct Look {
  bool colour = false;
  bool unicode = false;
};

/// The standard output. A terminal shows one picture that is drawn anew in its place, on its second
/// screen, so that what stood there before comes back at the end.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Whether it is a terminal that can place its cursor.
  bool live() const { return live_; }
  Look look() const { return look_; }
  Size size() const;
  void draw(const std::vector<std::string>& lines);

  /// Ends the picture, also one that another process left behind.
  static void restore();

 private:
  bool live_;
  Look look_;
};

/// Whether the standard output is a terminal that can place its cursor.
bool isLiveTerminal();

}  // namespace vitals

#endif
