#include "VellicorRepackCore/Remote/CurlTransport.h"
