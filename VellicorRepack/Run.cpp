#include "VellicorRepack/Run.h"
