#include <string>
#include <vector>

#include "VellicorRepack/Run.h"

int main(int argc, char** argv) {
  vellicor::ignoreWriteSignals();
  return vellicor::run(std::vector<std::string>(argv, argv + argc));
}
