#pragma once

// What nearly every test uses.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor::testing {

namespace fs = std::filesystem;
using namespace ::testing;
using Words = std::vector<std::string>;

/// The text of what `action` throws, or "no error" when it throws nothing: one line asserts both that and
/// what.
template <typename Action>
std::string errorText(Action&& action) {
  try {
    std::forward<Action>(action)();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

/// `text` with its first `from` replaced; a test failure when it is missing.
inline std::string replaced(std::string text, std::string_view from, std::string_view to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

/// A change to a valid value, and the text of the error that it leads to.
template <typename T>
using Bent = std::pair<std::function<void(T&)>, std::string>;

/// Applies each change to a copy of its own and expects the error of `action` on it.
template <typename T, typename Action>
void expectErrors(const T& valid, const std::vector<Bent<T>>& rows, const Action& action) {
  for (const Bent<T>& row : rows) {
    T value = valid;
    row.first(value);
    EXPECT_EQ(errorText([&] { action(value); }), row.second);
  }
}

}  // namespace vellicor::testing
