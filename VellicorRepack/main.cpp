#include <string>
#include <vector>

#include "VellicorRepack/Run.h"

int main(int argc, char** argv) { return vellicor::run(std::vector<std::string>(argv, argv + argc)); }
