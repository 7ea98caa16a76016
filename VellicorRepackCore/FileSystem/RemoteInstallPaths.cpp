#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"
