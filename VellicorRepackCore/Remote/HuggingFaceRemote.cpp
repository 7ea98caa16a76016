#include "VellicorRepackCore/Remote/HuggingFaceRemote.h"
