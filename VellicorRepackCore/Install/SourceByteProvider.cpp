#include "VellicorRepackCore/Install/SourceByteProvider.h"
