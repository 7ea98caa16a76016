#pragma once

#include <string>
#include <vector>

#include "Tests/FaultInjection/TrialReport.h"

namespace vellicor {

struct NamedTrial {
  std::string name;
  Trial run;
};

/// Every trial that this platform can run.
std::vector<NamedTrial> allTrials();

/// An install is killed at random moments, resumed and killed again, until it ends: the artifact is right.
void tryKills(const TrialOptions& options, TrialReport& report);

/// Each file call of an install, a resume, a discard, an exchange and a verification fails or is the last of
/// its process: what is printed is the failure's own text, and what is left leads to the right artifact.
void tryFailingCalls(const TrialOptions& options, TrialReport& report);

/// Bits of committed ranges flip, and files change, while an install goes on: nothing wrong is promoted, and
/// only what differs is fetched again.
void tryFlips(const TrialOptions& options, TrialReport& report);

/// The power fails at each moment of the same operations, and of what was not synced any part is lost.
void tryPowerCuts(const TrialOptions& options, TrialReport& report);

/// Whatever a hub or the wire can do to an answer meets each request of an install, at each attempt, and an
/// install is cancelled wherever it waits: it is tried again or refused as it must be, in its own words.
void tryWireFaults(const TrialOptions& options, TrialReport& report);

/// Full and read-only volumes, and limits of the process: each failure in its own text, and recovered from.
void tryDisks(const TrialOptions& options, TrialReport& report);

/// Links that take the place of an entry in the middle of an install, and what has no place in an artifact:
/// nothing is touched where a link leads.
void tryLinks(const TrialOptions& options, TrialReport& report);

/// Many processes at one output, and lock files that vanish: one of them wins, the others say why not.
void tryRaces(const TrialOptions& options, TrialReport& report);

}  // namespace vellicor
