#include "VellicorFormat/MorlenManifestV1.h"
