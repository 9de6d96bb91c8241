// SPDX-License-Identifier: Apache-2.0
// The public names of the property store. Each forwards to the implementation
// for files, which is the only one on this platform.
#include "zoltlog.h"

uint32_t utiOpenPropertyStore(const char *path, const char *root, PropertyStore *store) {
    return utiOpenPropertyStoreFile(path, root, store);
}

uint32_t utiCreatePropertyStore(const char *path, const char *root, PropertyStore *store) {
    return utiCreatePropertyStoreFile(path, root, store);
}

uint32_t utiClosePropertyStore(PropertyStore *store) {
    return utiClosePropertyStoreFile(store);
}

uint32_t utiCreateTmpPropertyStore(const char *path, const char *root, PropertyStore *store) {
    return utiCreateTmpPropertyStoreFile(path, root, store);
}

uint32_t utiRemoveProperty(PropertyStore *store, const char *name) {
    return utiRemovePropertyFile(store, name);
}

uint32_t utiRemovePropertyRoot(PropertyStore *store, const char *section) {
    return utiRemovePropertyRootFile(store, section);
}

uint32_t utiGetPropertyAsUlong(PropertyStore *store, const char *name, unsigned long *out) {
    return utiGetPropertyAsUlongFile(store, name, out);
}

uint32_t utiSetPropertyAsUlong(PropertyStore *store, const char *name, const unsigned long *value) {
    return utiSetPropertyAsUlongFile(store, name, value);
}

uint32_t utiGetPropertyAsBool(PropertyStore *store, const char *name, uint32_t *out) {
    return utiGetPropertyAsBoolFile(store, name, out);
}

uint32_t utiSetPropertyAsBool(PropertyStore *store, const char *name, const uint32_t *value) {
    return utiSetPropertyAsBoolFile(store, name, value);
}

uint32_t utiGetPropertyAsStr(PropertyStore *store, const char *name, char **out) {
    return utiGetPropertyAsStrFile(store, name, out);
}

uint32_t utiSetPropertyAsStr(PropertyStore *store, const char *name, const char *text) {
    return utiSetPropertyAsStrFile(store, name, text);
}

int32_t Iscomment(const char *line) {
    return IscommentFile(line);
}

uint32_t utiEnumProductId(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size) {
    return utiEnumProductIdFile(store, ignored, name, size);
}

uint32_t utiEnumLogsetForProductId(PropertyStore *store, uint32_t ignored, char *name, uint32_t *size) {
    return utiEnumLogsetForProductIdFile(store, ignored, name, size);
}
