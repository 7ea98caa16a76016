#include "VellicorRepackCore/Source/ArchInfo.h"
