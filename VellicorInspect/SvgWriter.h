#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vellicor {

struct SvgBox {
  double x;
  double y;
  double width;
  double height;

  double right() const { return x + width; }
  double bottom() const { return y + height; }
};

/// Builds an SVG document from top to bottom and escapes all its texts.
class SvgWriter {
 public:
  enum class Anchor { start, middle, end };

  /// The lines of the title appear when the pointer rests on the box.
  void box(const SvgBox& box, std::string_view fill, const std::vector<std::string>& title = {},
           double opacity = 1);
  void line(double x1, double y1, double x2, double y2);
  /// The faint shape between a part and its magnification below.
  void wedge(const SvgBox& part, const SvgBox& magnified);
  /// `style` is one of the classes of the style sheet: "title", "head", "label", "small" or "inside".
  void text(double x, double y, std::string_view style, std::string_view text, Anchor anchor = Anchor::start);

  std::string document(double width, double height, std::string_view title) const;

 private:
  std::string body_;
};

}  // namespace vellicor
