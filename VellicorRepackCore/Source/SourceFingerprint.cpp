#include "VellicorRepackCore/Source/SourceFingerprint.h"
