#include "VellicorLab/LocalHub.h"
