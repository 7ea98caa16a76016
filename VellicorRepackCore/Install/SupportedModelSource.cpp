#include "VellicorRepackCore/Install/SupportedModelSource.h"
