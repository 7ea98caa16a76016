#include "VellicorFormat/MorlenResidentIndexV1.h"
