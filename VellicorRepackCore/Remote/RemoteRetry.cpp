#include "VellicorRepackCore/Remote/RemoteRetry.h"
