#include "VellicorRepackCore/Source/Safetensors.h"
