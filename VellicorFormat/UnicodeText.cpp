#include "VellicorFormat/UnicodeText.h"
