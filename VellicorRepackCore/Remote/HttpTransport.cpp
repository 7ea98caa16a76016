#include "VellicorRepackCore/Remote/HttpTransport.h"
