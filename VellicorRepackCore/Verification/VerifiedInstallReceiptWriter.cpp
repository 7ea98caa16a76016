#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"
