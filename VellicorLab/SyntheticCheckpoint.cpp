#include "VellicorLab/SyntheticCheckpoint.h"
