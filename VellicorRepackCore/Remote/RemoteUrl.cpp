#include "VellicorRepackCore/Remote/RemoteUrl.h"
