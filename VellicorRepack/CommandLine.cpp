#include "VellicorRepack/CommandLine.h"
