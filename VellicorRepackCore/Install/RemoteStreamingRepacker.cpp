#include "VellicorRepackCore/Install/RemoteStreamingRepacker.h"
