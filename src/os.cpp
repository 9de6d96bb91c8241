#include "zoltlog.h"

int32_t errorCode;
