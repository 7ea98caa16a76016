#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
