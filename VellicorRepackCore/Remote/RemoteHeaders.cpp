#include "VellicorRepackCore/Remote/RemoteHeaders.h"
