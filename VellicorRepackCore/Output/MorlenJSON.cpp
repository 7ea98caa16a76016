#include "VellicorRepackCore/Output/MorlenJSON.h"
