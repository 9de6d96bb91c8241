// Log recycling: what a rollover does with the files that a series no longer keeps.
#include "write_file.h"

#include <sys/stat.h>

// The file being written is never surplus by age; only a clock that was set back could
// make it look old, or a configuration that keeps none.
static bool isBeingWritten(const LogFileState *state, const char *path) {
    struct stat open;
    struct stat named;
    return state->file.descriptor > 0 && fstat(state->file.descriptor, &open) == 0 &&
           stat(path, &named) == 0 && open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

static void freeListing(LogListing *listing) {
    LogFileEntry *entry = listing->files;
    while (entry != nullptr) {
        LogFileEntry *next = entry->next;
        zoltLogOs_close(&entry->file);
        zoltLogFree(entry);
        entry = next;
    }
    *listing = LogListing();
}

uint32_t recycleLogFiles(LogFileState *state) {
    if (state == nullptr || state->logRecycling == 0)
        return ZOLTLOG_OK;
    LogListing listing;
    const uint32_t result =
        state->isLogset != 0
            ? zoltLogGetManageableLogFilesSL(state->productId, state->logsetName, &listing)
            : zoltLogGetManageableLogFiles(state->productId, state->fileOriginatorId, &listing);
    if (result != ZOLTLOG_OK)
        return ZOLTLOG_OK;
    char *path = nullptr;
    while (zoltLogFetchNextFile(&listing, &path) == ZOLTLOG_OK) {
        if (!isBeingWritten(state, path))
            zoltLogDeleteFile(path);
        zoltLogFreeBuffer(&path);
    }
    freeListing(&listing);
    return ZOLTLOG_OK;
}
