#include <string>
#include <vector>

#include "VellicorProgress/Run.h"
#include "VellicorTerminal/StandardStreams.h"

int main(int argc, char** argv) {
  vellicor::openStandardStreams();
  return vellicor::runProgressViewer(std::vector<std::string>(argv, argv + argc));
}
