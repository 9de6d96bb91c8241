/* SPDX-License-Identifier: Apache-2.0 */
/* A program that has its own objects under the library's exported names, of other sizes:
 * it fills a device, has a message rendered for the system log, and looks at what became of them. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

const char *errorCode = "mine"; /* 8 bytes, not 4 */
char sh_handle[3] = "ab";
char fmtLib[5] = "cdef";
char newfmtLib[6] = "ghijk";

extern int zoltLogOs_initfilehandle(void *file);
extern int zoltLogOs_open(void *file, const char *path, int mode, uint32_t permissions);
extern int zoltLogOs_write(void *file, const void *bytes, int length);
extern int osLogWrite(void *handle, void *msg);

int main(void) {
    static uint64_t file[8192];
    static uint64_t handle[512];
    static uint64_t msg[512];
    zoltLogOs_initfilehandle(file);
    if (zoltLogOs_open(file, "/dev/full", 0, 0600) != 0)
        return 77;
    if (zoltLogOs_write(file, "x", 1) != -1)
        return 1;
    (void)osLogWrite(handle, msg);
    if (strcmp(errorCode, "mine") != 0 || strcmp(sh_handle, "ab") != 0 || strcmp(fmtLib, "cdef") != 0 ||
        strcmp(newfmtLib, "ghijk") != 0)
        return 2;
    return 0;
}
