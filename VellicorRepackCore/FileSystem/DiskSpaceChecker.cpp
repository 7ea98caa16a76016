#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"
