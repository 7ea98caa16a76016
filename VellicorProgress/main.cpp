#include <string>
#include <vector>

#include "VellicorProgress/Run.h"

int main(int argc, char** argv) {
  return vellicor::runProgressViewer(std::vector<std::string>(argv, argv + argc));
}
