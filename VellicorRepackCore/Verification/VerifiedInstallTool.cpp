#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"
