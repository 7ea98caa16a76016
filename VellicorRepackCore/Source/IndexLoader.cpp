#include "VellicorRepackCore/Source/IndexLoader.h"
