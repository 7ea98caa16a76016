#include "VellicorRepackCore/Base/BoundedScratch.h"
