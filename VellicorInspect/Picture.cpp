#include "VellicorInspect/Picture.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "VellicorInspect/SvgWriter.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/TerminalText.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

using Anchor = SvgWriter::Anchor;

// In units of the picture.
constexpr double pictureWidth = 1200;
constexpr double margin = 40;
constexpr double barLeft = 256;
/// The longest file's bar; the file's size follows it.
constexpr double scaleWidth = 810;
constexpr double innerRight = pictureWidth - margin;
constexpr double rowPitch = 17;
constexpr double rowBar = 12;
constexpr double magnifiedBar = 34;
constexpr std::size_t legendColumns = 4;
/// A thinner region is drawn together with its neighbours.
constexpr double thinnest = 0.5;
/// A thinner region is drawn together with neighbours of its family.
constexpr double thinInFamily = 3;
/// Every region can be seen, however small it is.
constexpr double thinnestDrawn = 1;
constexpr double characterWidth = 6.2;
constexpr std::size_t labelColumns = 32;
/// Thinner parts of a blob show their name only under the pointer.
constexpr double narrowestNamed = 2;
constexpr std::size_t nameSteps = 3;
/// No model has more files. A damaged or hostile artifact may: the rest of them is one row.
constexpr std::size_t maximumRows = 256;

/// Regions side by side that are drawn as one.
struct Stretch {
  std::uint64_t start;
  std::uint64_t end;
  const Region* first;
  const Region* last;
  std::map<Family, std::uint64_t> bytes{};

  Family family() const {
    return std::ranges::max_element(bytes, {}, [](const auto& entry) { return entry.second; })->first;
  }
  std::uint64_t foreignBytes() const { return end - start - bytes.at(family()); }
};

/// The largest of 1, 2, 5, 10, 20, 50 and so on that is not above `limit`, which is at least 1.
std::uint64_t roundStep(std::uint64_t limit) {
  std::uint64_t power = 1;
  while (limit / power >= 10) power *= 10;
  return power * (limit / power >= 5 ? 5 : limit / power >= 2 ? 2 : 1);
}

class Bar {
 public:
  /// The bytes from `start` on fill the box at `unitsPerByte`.
  Bar(std::uint64_t start, double unitsPerByte, SvgBox box)
      : start_(start), unitsPerByte_(unitsPerByte), box_(box) {}

  double width(std::uint64_t bytes) const { return static_cast<double>(bytes) * unitsPerByte_; }
  SvgBox box(std::uint64_t start, std::uint64_t end) const {
    return {box_.x + width(start - start_), box_.y, width(end - start), box_.height};
  }

  std::vector<Stretch> stretches(std::span<const Region> regions) const {
    std::vector<Stretch> all;
    for (const Region& region : regions) {
      if (all.empty() || !joins(all.back(), region))
        all.push_back({region.start, region.end, &region, &region});
      Stretch& stretch = all.back();
      stretch.end = region.end;
      stretch.last = &region;
      stretch.bytes[region.family] += region.bytes();
    }
    return all;
  }

 private:
  bool joins(const Stretch& stretch, const Region& region) const {
    if (width(stretch.end - stretch.start) < thinnest) return true;
    if (stretch.family() == region.family) return width(region.bytes()) < thinInFamily;
    return width(stretch.foreignBytes() + region.bytes()) < thinnest;
  }

  std::uint64_t start_;
  double unitsPerByte_;
  SvgBox box_;
};

std::string nameOf(const Region& region) {
  if (region.tensor == nullptr) return std::string(titleOf(region.family));
  if (!region.expert) return region.tensor->name;
  return fmt::format("{}, expert {}", region.tensor->name, *region.expert);
}

std::vector<std::string> titleOf(const Stretch& stretch) {
  std::vector<std::string> title = {nameOf(*stretch.first)};
  if (stretch.first != stretch.last) title[0] += " to " + nameOf(*stretch.last);
  title.push_back(fmt::format("at {}: {}", stretch.start, exactBytesText(stretch.end - stretch.start)));
  for (const auto& [family, bytes] : stretch.bytes) {
    title.push_back(fmt::format("{} {}", titleOf(family), bytesText(bytes)));
  }
  return title;
}

std::string_view lastPart(std::string_view name, char separator) {
  return name.substr(name.rfind(separator) + 1);
}

/// Draws one part below the other.
class Painter {
 public:
  explicit Painter(const Inspection& inspection)
      : inspection_(inspection),
        map_(inspection.map),
        manifest_(inspection.artifact.manifest()),
        layout_(inspection.artifact.metadata.layout) {}

  std::string document() {
    const std::string title = "Where the bytes of " + manifest_.modelID + " are";
    paintHead();
    paintShares();
    paintFiles();
    paintMagnified();
    return svg_.document(pictureWidth, y_ + margin, title);
  }

 private:
  void paintHead() {
    svg_.text(margin, y_ + 22, "title", shortened(escaped(manifest_.modelID), 70, Cut::beginning));
    const auto revision = inspection_.artifact.revision();
    const std::string source = revision ? "revision " + *revision
                                        : "source index " + manifest_.sourceSnapshotHash.value_or("unknown");
    svg_.text(margin, y_ + 44, "small", shortened(escaped(source), 100, Cut::beginning));
    svg_.text(innerRight, y_ + 22, "head",
              fmt::format("{} in {} files", bytesText(map_.totalBytes), map_.files.size()), Anchor::end);
    svg_.text(innerRight, y_ + 44, "small",
              fmt::format("{} layers of {} experts", layout_.numLayers, layout_.expertsPerLayer),
              Anchor::end);
    y_ += 64;
  }

  /// One bar of all bytes by family, and the legend.
  void paintShares() {
    double x = margin;
    std::size_t position = 0;
    for (const Family family : allFamilies) {
      const auto found = map_.familyBytes.find(family);
      const std::uint64_t bytes = found == map_.familyBytes.end() ? 0 : found->second;
      const double width = (innerRight - margin) * share(bytes);
      if (bytes > 0) {
        svg_.box({x, y_, width, 20}, colourOf(family),
                 {fmt::format("{}, {}", titleOf(family), exactBytesText(bytes))});
      }
      x += width;
      const double left = margin + 290 * static_cast<double>(position % legendColumns);
      const double top = y_ + (position < legendColumns ? 42 : 64);
      svg_.box({left, top - 10, 12, 12}, colourOf(family));
      svg_.text(left + 20, top, "label", titleOf(family));
      svg_.text(left + 198, top, "small", bytesText(bytes), Anchor::end);
      svg_.text(left + 250, top, "small", percentText(bytes, map_.totalBytes), Anchor::end);
      ++position;
    }
    y_ += 104;
  }

  double share(std::uint64_t bytes) const {
    return static_cast<double>(bytes) / static_cast<double>(std::max<std::uint64_t>(map_.totalBytes, 1));
  }

  void paintFiles() {
    std::uint64_t longest = 1;
    for (const FileMap& file : map_.files) longest = std::max(longest, file.size);
    unitsPerByte_ = scaleWidth / static_cast<double>(longest);
    const std::size_t rows = std::min(map_.files.size(), maximumRows);
    paintScale(longest, rows);
    for (std::size_t row = 0; row < rows; ++row) {
      const std::size_t left = map_.files.size() - row;
      if (row + 1 == rows && left > 1) {
        svg_.text(margin, y_ + 10, "label", fmt::format("and {} more files", left));
      } else {
        paintFile(map_.files[row]);
      }
      y_ += rowPitch;
    }
  }

  /// Lines beneath the bars at round numbers of bytes.
  void paintScale(std::uint64_t longest, std::size_t rows) {
    const std::uint64_t step = roundStep(std::max<std::uint64_t>(longest / 4, 1));
    svg_.text(margin, y_, "head", "Files, to scale");
    for (std::uint64_t at = 0; at <= longest; at += step) {
      const double x = barLeft + static_cast<double>(at) * unitsPerByte_;
      svg_.text(x, y_, "small", at == 0 ? "0" : bytesText(at), Anchor::middle);
      svg_.line(x, y_ + 6, x, y_ + 12 + rowPitch * static_cast<double>(rows));
      if (longest - at < step) break;
    }
    y_ += 14;
  }

  void paintFile(const FileMap& file) {
    const SvgBox box{barLeft, y_, static_cast<double>(file.size) * unitsPerByte_, rowBar};
    svg_.text(margin, y_ + 10, "label", shortened(escaped(file.path), labelColumns, Cut::beginning));
    const Bar bar(0, unitsPerByte_, box);
    for (const Stretch& stretch : bar.stretches(file.regions)) {
      SvgBox drawn = bar.box(stretch.start, stretch.end);
      drawn.width = std::max(drawn.width, thinnestDrawn);
      svg_.box(drawn, colourOf(stretch.family()), titleOf(stretch));
    }
    svg_.text(box.right() + 8, y_ + 10, "small", bytesText(file.size));
    if (file.layer) magnifiedFile_ = {&file, box};
  }

  /// The last layer file expert by expert, and its first blob sub-tensor by sub-tensor.
  void paintMagnified() {
    const auto [file, part] = magnifiedFile_;
    if (file == nullptr) return;
    y_ += 34;
    const SvgBox box{barLeft, y_, innerRight - barLeft, magnifiedBar};
    svg_.wedge({part.x, part.y, part.width, part.height + 2}, box);
    svg_.text(margin, y_ + 14, "head",
              shortened(escaped(lastPart(file->path, '/')), labelColumns, Cut::beginning));
    svg_.text(margin, y_ + 29, "small",
              fmt::format("{} experts, {} each", layout_.expertsPerLayer, bytesText(layout_.expertStride)));
    const SvgBox cell = paintCells(*file, box);
    y_ += magnifiedBar + 34;
    paintBlob(*file, cell);
  }

  /// Returns the first cell.
  SvgBox paintCells(const FileMap& file, const SvgBox& box) {
    const double width = box.width / static_cast<double>(layout_.expertsPerLayer);
    const bool showsCells = width >= 3;
    if (!showsCells) svg_.box(box, colourOf(Family::routedExperts));
    for (const MorlenExpertV1& expert : file.layer->experts) {
      if (!showsCells) break;
      const std::uint64_t slot = expert.offset / layout_.expertStride;
      const std::int64_t id = idOf(expert, *file.layer);
      svg_.box({box.x + static_cast<double>(slot) * width, box.y, width - 1, box.height},
               colourOf(Family::routedExperts),
               {fmt::format("expert {}", id),
                fmt::format("at {}: {}", expert.offset, exactBytesText(expert.size))});
    }
    return {box.x, box.y, std::max(width - 1, thinnestDrawn), box.height};
  }

  /// The router's index of an expert.
  static std::int64_t idOf(const MorlenExpertV1& expert, const MorlenLayerV1& layer) {
    return expert.expert.value_or(&expert - layer.experts.data());
  }

  void paintBlob(const FileMap& file, const SvgBox& cell) {
    const SvgBox box{barLeft, y_, innerRight - barLeft, magnifiedBar};
    svg_.wedge(cell, box);
    const auto first = std::ranges::find(file.layer->experts, 0U, &MorlenExpertV1::offset);
    svg_.text(margin, y_ + 14, "head", fmt::format("expert {}", idOf(*first, *file.layer)));
    svg_.text(margin, y_ + 29, "small", exactBytesText(layout_.expertStride));
    const auto end = std::ranges::find_if(
        file.regions, [&](const Region& region) { return region.start >= layout_.expertStride; });
    const Bar bar(0, box.width / static_cast<double>(layout_.expertStride), box);
    std::size_t step = 0;
    for (const Stretch& stretch : bar.stretches({file.regions.begin(), end})) {
      SvgBox drawn = bar.box(stretch.start, stretch.end);
      drawn.width = std::max(drawn.width - 1, thinnestDrawn);
      paintPart(stretch, drawn, step);
    }
    y_ += magnifiedBar + 14 * static_cast<double>(nameSteps);
  }

  /// A sub-tensor with its name inside, or below if it does not fit. Names below stand in steps.
  void paintPart(const Stretch& stretch, const SvgBox& box, std::size_t& step) {
    const StoredTensor* tensor = stretch.first->tensor;
    const Family family = stretch.family();
    const bool isFull = tensor == nullptr || tensor->bits;
    svg_.box(box, colourOf(family), titleOf(stretch), isFull ? 1 : 0.6);
    const std::string name =
        shortened(escaped(tensor == nullptr ? titleOf(family) : lastPart(tensor->name, '.')), labelColumns,
                  Cut::beginning);
    const double width = characterWidth * static_cast<double>(displayColumns(name));
    const double middle = box.x + box.width / 2;
    if (width + 12 < box.width) {
      const std::string_view style = family == Family::padding ? "small" : "inside";
      svg_.text(middle, box.y + 15, style, name, Anchor::middle);
      svg_.text(middle, box.y + 28, style, bytesText(stretch.end - stretch.start), Anchor::middle);
      step = 0;
    } else if (box.width > narrowestNamed) {
      const double top = box.bottom() + 5 + 14 * static_cast<double>(step);
      const bool isAtEdge = middle + width / 2 > innerRight;
      svg_.line(middle, box.bottom() + 1, middle, top);
      svg_.text(isAtEdge ? innerRight : middle, top + 11, "small", name,
                isAtEdge ? Anchor::end : Anchor::middle);
      step = (step + 1) % nameSteps;
    }
  }

  const Inspection& inspection_;
  const ByteMap& map_;
  const MorlenManifestV1& manifest_;
  const MorlenPackedExpertsLayoutV1& layout_;
  SvgWriter svg_;
  double y_ = margin - 12;
  double unitsPerByte_ = 0;
  std::pair<const FileMap*, SvgBox> magnifiedFile_{};
};

}  // namespace

std::string picture(const Inspection& inspection) { return Painter(inspection).document(); }

}  // namespace vellicor
