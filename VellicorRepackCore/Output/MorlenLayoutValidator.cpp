#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
