#include "VellicorFormat/JsonReading.h"
