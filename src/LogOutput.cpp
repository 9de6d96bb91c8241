#include "zoltlog.h"

void *sh_handle;
LogFormatter *fmtLib;
LogFormatter *newfmtLib;
