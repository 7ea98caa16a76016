#include "VellicorRepackCore/Remote/RemoteRangeTransfer.h"
