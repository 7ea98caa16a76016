#include "VellicorFormat/CanonicalJson.h"
