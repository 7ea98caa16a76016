#include "VellicorRepackCore/Output/ResidentWriter.h"
