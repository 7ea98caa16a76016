#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
