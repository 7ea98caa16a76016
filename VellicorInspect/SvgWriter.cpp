#include "VellicorInspect/SvgWriter.h"

#include <iterator>
#include <map>

#include <fmt/format.h>

#include "VellicorTerminal/Escaping.h"

namespace vellicor {

namespace {

constexpr std::string_view styleSheet =
    "text { font-family: system-ui, -apple-system, 'Segoe UI', 'Helvetica Neue', Arial, 'DejaVu Sans', "
    "sans-serif; "
    "font-size: 12px; fill: #27313d }\n"
    ".title { font-size: 22px; font-weight: 600 }\n"
    ".head { font-weight: 600 }\n"
    ".small { font-size: 11px; fill: #667382 }\n"
    ".inside { font-size: 11px; fill: #ffffff }\n"
    "rect { shape-rendering: crispEdges }\n"
    "line { stroke: #e3e7eb; stroke-width: 1 }\n"
    "polygon { fill: #eef0f3 }";

/// With at most two decimal places.
std::string number(double value) {
  std::string text = fmt::format("{:.2f}", value);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.')) text.pop_back();
  return text;
}

std::string xmlText(std::string_view text) {
  static const std::map<char, std::string_view> entities = {
      {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}};
  std::string out;
  for (const char c : escaped(text)) {
    const auto entity = entities.find(c);
    out += entity == entities.end() ? std::string_view(&c, 1) : entity->second;
  }
  return out;
}

// Escapes line by line, so that a line feed within a line does not divide it.
std::string xmlLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += (out.empty() ? "" : "\n") + xmlText(line);
  return out;
}

}  // namespace

void SvgWriter::box(const SvgBox& box, std::string_view fill, const std::vector<std::string>& title,
                    double opacity) {
  fmt::format_to(std::back_inserter(body_), R"(<rect x="{}" y="{}" width="{}" height="{}" fill="{}")",
                 number(box.x), number(box.y), number(box.width), number(box.height), fill);
  if (opacity < 1) fmt::format_to(std::back_inserter(body_), R"( fill-opacity="{}")", number(opacity));
  body_ += title.empty() ? "/>\n" : fmt::format("><title>{}</title></rect>\n", xmlLines(title));
}

void SvgWriter::line(double x1, double y1, double x2, double y2) {
  fmt::format_to(std::back_inserter(body_), "<line x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n", number(x1),
                 number(y1), number(x2), number(y2));
}

void SvgWriter::wedge(const SvgBox& part, const SvgBox& magnified) {
  fmt::format_to(std::back_inserter(body_), "<polygon points=\"{},{} {},{} {},{} {},{}\"/>\n", number(part.x),
                 number(part.bottom()), number(part.right()), number(part.bottom()),
                 number(magnified.right()), number(magnified.y), number(magnified.x), number(magnified.y));
}

void SvgWriter::text(double x, double y, std::string_view style, std::string_view text, Anchor anchor) {
  fmt::format_to(std::back_inserter(body_), R"(<text x="{}" y="{}" class="{}")", number(x), number(y), style);
  if (anchor == Anchor::middle) body_ += R"( text-anchor="middle")";
  if (anchor == Anchor::end) body_ += R"( text-anchor="end")";
  body_ += fmt::format(">{}</text>\n", xmlText(text));
}

std::string SvgWriter::document(double width, double height, std::string_view title) const {
  return fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" height=\"{1}\" "
      "role=\"img\">\n<title>{2}</title>\n<style>\n{3}\n</style>\n"
      "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n{4}</svg>\n",
      number(width), number(height), xmlText(title), styleSheet, body_);
}

}  // namespace vellicor
