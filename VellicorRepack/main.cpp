#include <csignal>
#include <string>
#include <vector>

#include "VellicorRepack/Run.h"

int main(int argc, char** argv) {
  // An install outlives whoever reads its progress; a write that nobody takes then fails instead of ending
  // the process.
  std::signal(SIGPIPE, SIG_IGN);
  return vellicor::run(std::vector<std::string>(argv, argv + argc));
}
