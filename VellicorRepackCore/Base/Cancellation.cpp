#include "VellicorRepackCore/Base/Cancellation.h"
