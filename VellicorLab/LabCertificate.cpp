#include "VellicorLab/LabCertificate.h"
