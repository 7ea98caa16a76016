#pragma once

#include <chrono>
#include <stop_token>

namespace vellicor {

/// Throws `CancellationError` when the token's owner asked to stop.
void throwIfCancelled(const std::stop_token& stop);

/// Waits for the duration; throws `CancellationError` as soon as a stop is asked for.
void sleepUnlessCancelled(std::chrono::nanoseconds duration, const std::stop_token& stop);

}  // namespace vellicor
