#include "VellicorRepackCore/FileSystem/MorlenDirectoryAccess.h"
