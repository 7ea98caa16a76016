#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
