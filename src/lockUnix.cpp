#include "lockUnix.h"

LogLock zoltLogMutex;
