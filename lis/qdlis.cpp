#include "zoltlis.h"
