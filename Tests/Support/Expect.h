#pragma once

#include <exception>
#include <string>
#include <utility>

namespace vellicor::testing {

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

}  // namespace vellicor::testing
