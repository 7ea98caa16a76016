#include "VellicorRepackCore/FileSystem/Posix.h"
