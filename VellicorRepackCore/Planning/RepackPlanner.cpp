#include "VellicorRepackCore/Planning/RepackPlanner.h"
