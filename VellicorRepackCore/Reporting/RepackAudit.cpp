#include "VellicorRepackCore/Reporting/RepackAudit.h"
