#include "VellicorFormat/MorlenFormatV1.h"
