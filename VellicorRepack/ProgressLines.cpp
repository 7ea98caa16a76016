#include "VellicorRepack/ProgressLines.h"
