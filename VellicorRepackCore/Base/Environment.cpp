#include "VellicorRepackCore/Base/Environment.h"
