#include <string>
#include <vector>

#include "VellicorRepack/Run.h"
#include "VellicorTerminal/Signals.h"
#include "VellicorTerminal/StandardStreams.h"

int main(int argc, char** argv) {
  vellicor::openStandardStreams();
  vellicor::ignoreWriteSignals();
  return vellicor::run(std::vector<std::string>(argv, argv + argc));
}
