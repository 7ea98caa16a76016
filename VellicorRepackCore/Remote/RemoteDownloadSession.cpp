#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"
