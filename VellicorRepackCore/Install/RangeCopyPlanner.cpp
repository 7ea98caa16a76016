#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
