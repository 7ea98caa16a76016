#include "VellicorRepackCore/FileSystem/InstallLock.h"
