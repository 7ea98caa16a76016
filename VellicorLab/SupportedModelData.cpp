#include "VellicorLab/SupportedModelData.h"
