/* SPDX-License-Identifier: Apache-2.0 */
/*
 * An installer: registers its product with the logging system and sets it up.
 *
 * Shows: registration, settings of a product, an originator and a log set, and what
 * to do when the product is there already. The configuration is found as always
 * (ZOLTLOG_CFG_LOC, else /etc/qd/zoltlog.conf).
 *
 *   installer register PRODUCT NAMES CONFIGURATION-FILE LOG-DIRECTORY
 *   installer remove PRODUCT
 *
 * NAMES are the short names of the product, separated by commas.
 */
#include "zoltlog_results.h"

#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const uint64_t FILE_SIZE_KB = 256;
static const uint64_t FILES_KEPT = 4;
static const uint64_t SECONDS_PER_DAY = 86400;
static const uint64_t DEBUGGED_ORIGINATOR = 8;
static const char LOGSET[] = "jobs";

/* Each setter stores a value and marks it as changed; writing writes what is marked. */
static uint32_t setUpProduct(uint64_t product, const char *directory) {
    LogCfg cfg = {0};
    uint32_t result = zoltLogReadCfg(product, ZOLTLOG_DEFAULT_ORIGINATOR, &cfg);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDirectory(&cfg, directory, NULL);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetRolloverMode(&cfg, ZOLTLOG_ROLLOVER_FILE_SIZE);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetMaxFileSize(&cfg, FILE_SIZE_KB);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetNumberOfLogFiles(&cfg, FILES_KEPT);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDiagLevel(&cfg, 3);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDynaSetting(&cfg, 60);
    if (result == ZOLTLOG_OK)
        result = zoltLogWriteCfg(product, ZOLTLOG_DEFAULT_ORIGINATOR, &cfg);
    zoltLogFreeCfg(&cfg);
    return result;
}

/* An originator holds what differs from the default. */
static uint32_t setUpOriginator(uint64_t product) {
    LogCfg cfg = {0};
    uint32_t result = zoltLogReadCfg(product, DEBUGGED_ORIGINATOR, &cfg);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDebugLevel(&cfg, 4);
    if (result == ZOLTLOG_OK)
        result = zoltLogWriteCfg(product, DEBUGGED_ORIGINATOR, &cfg);
    zoltLogFreeCfg(&cfg);
    return result;
}

/*
 * A log set: originators that share one series of files. Its settings begin with those
 * of the log set "Default". Its file name is written by a call of its own.
 */
static uint32_t setUpLogset(uint64_t product, const char *directory) {
    LogCfg cfg = {0};
    uint32_t result = InitLogCfg(product, ZOLTLOG_DEFAULT_ORIGINATOR, "Default", &cfg);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetDirectory(&cfg, directory, NULL);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetRolloverMode(&cfg, ZOLTLOG_ROLLOVER_PERIODIC);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetRolloverPeriod(&cfg, SECONDS_PER_DAY);
    if (result == ZOLTLOG_OK)
        result = zoltLogWritelogSetCfg(product, "Default", &cfg);
    zoltLogFreeCfg(&cfg);
    if (result != ZOLTLOG_OK)
        return result;
    result = InitLogCfg(product, ZOLTLOG_DEFAULT_ORIGINATOR, LOGSET, &cfg);
    if (result == ZOLTLOG_OK)
        result = zoltLogCfgSetLogsetFilename(&cfg, "nightly");
    if (result == ZOLTLOG_OK)
        result = zoltLogWritelogSetCfg(product, LOGSET, &cfg);
    zoltLogFreeCfg(&cfg);
    return result;
}

static int install(uint64_t product, const char *names, const char *file, const char *directory) {
    uint32_t result = zoltLogAddProductCfg(product, names, file);
    if (result == ZOLTLOG_PRODUCT_EXISTS) {
        printf("product %llu is registered already; its settings stay as they are\n",
               (unsigned long long)product);
        return 0;
    }
    if (result == ZOLTLOG_OK)
        result = setUpProduct(product, directory);
    if (result == ZOLTLOG_OK)
        result = setUpOriginator(product);
    if (result == ZOLTLOG_OK)
        result = setUpLogset(product, directory);
    if (result != ZOLTLOG_OK) {
        fprintf(stderr, "installer: product %llu cannot be set up: %s\n", (unsigned long long)product,
                qdulResultText(result));
        return 1;
    }
    printf("product %llu is registered; its settings are in %s\n", (unsigned long long)product, file);
    return 0;
}

int main(int argc, char **argv) {
    setlocale(LC_ALL, ""); /* names and paths come from the command line, in the user's encoding */
    if (argc == 6 && strcmp(argv[1], "register") == 0)
        return install(strtoull(argv[2], NULL, 10), argv[3], argv[4], argv[5]);
    if (argc == 3 && strcmp(argv[1], "remove") == 0) {
        const uint32_t result = zoltLogRemoveProductCfg(strtoull(argv[2], NULL, 10));
        if (result != ZOLTLOG_OK)
            fprintf(stderr, "installer: the product cannot be removed: %s\n", qdulResultText(result));
        return result == ZOLTLOG_OK ? 0 : 1;
    }
    fprintf(stderr, "usage: installer register PRODUCT NAMES CONFIGURATION-FILE LOG-DIRECTORY\n"
                    "       installer remove PRODUCT\n");
    return 2;
}
