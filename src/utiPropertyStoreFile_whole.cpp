// SPDX-License-Identifier: Apache-2.0
// A whole file in memory.
#include "utiPropertyStoreFile.h"

#include "owned.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

uint32_t storeReadWhole(int descriptor, char **bytes, size_t *size) {
    static const size_t LEAST_ROOM = 4096;
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return STORE_UNREADABLE;
    size_t room = (S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) : 0) + LEAST_ROOM;
    LogOwned<char> block(static_cast<char *>(malloc(room)));
    size_t used = 0;
    while (block != nullptr) {
        const ssize_t count = read(descriptor, block.get() + used, room - used);
        if (count == 0) {
            *bytes = block.release();
            *size = used;
            return ZOLTLOG_STORE_OK;
        }
        if (count < 0 && errno != EINTR)
            return STORE_UNREADABLE;
        used += count > 0 ? static_cast<size_t>(count) : 0;
        if (used > STORE_FILE_MAX) {
            errno = EFBIG;
            return STORE_UNREADABLE;
        }
        if (used == room) { // it grew meanwhile
            room *= 2;
            auto *larger = static_cast<char *>(realloc(block.get(), room));
            if (larger == nullptr)
                break;
            (void)block.release();
            block.reset(larger);
        }
    }
    return STORE_NO_MEMORY;
}
