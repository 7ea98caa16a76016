#include "VellicorRepackCore/Base/Sha256Stream.h"
