#pragma once

#include <cstddef>

namespace vellicor::fuzz {

/// Counted down by every throwing `operator new` of this thread; the one that brings it to zero throws
/// `std::bad_alloc`.
extern thread_local std::size_t allocationsUntilFailure;

}  // namespace vellicor::fuzz
