#include "VellicorRepackCore/Remote/RemoteRedirect.h"
