#include "VellicorRepackCore/Base/Errors.h"
