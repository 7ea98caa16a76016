#include "VellicorRepackCore/Source/TensorMetadata.h"
