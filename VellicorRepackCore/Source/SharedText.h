#pragma once

#include <compare>
#include <memory>
#include <string>
#include <utility>

namespace vellicor {

/// A text that never changes and that all copies of it share: what names one of few files from each of many
/// places. Compares as the text does. Copies may live in different threads; what was moved from can only be
/// assigned to or destroyed.
class SharedText {
 public:
  SharedText() : SharedText(std::string()) {}
  SharedText(std::string text) : text_(std::make_shared<const std::string>(std::move(text))) {}
  SharedText(const char* text) : SharedText(std::string(text)) {}

  const std::string& text() const { return *text_; }
  operator const std::string&() const { return *text_; }

  friend bool operator==(const SharedText& a, const SharedText& b) {
    return a.text_ == b.text_ || *a.text_ == *b.text_;
  }
  friend std::strong_ordering operator<=>(const SharedText& a, const SharedText& b) {
    return a.text_ == b.text_ ? std::strong_ordering::equal : *a.text_ <=> *b.text_;
  }

 private:
  std::shared_ptr<const std::string> text_;
};

}  // namespace vellicor
