// SPDX-License-Identifier: Apache-2.0
// The number of this host in the names of an originator's files. The name service that
// tells it may take its time, so it is asked without the global lock: by whoever opens a
// series, and after a message whose rollover found the number out of date. Rollovers
// themselves go by what is known.
#include "write_file.h"

#include "cancellation.h"
#include "os.h"

#include <cstring>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr int64_t KNOWN_FOR_NS = 3600 * NS_PER_SECOND;

HostNumber known; // under the global lock; of number 0 before the first look-up

uint64_t mixed(uint64_t hash, const void *bytes, size_t length) {
    const auto *at = static_cast<const uint8_t *>(bytes);
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ at[i]) * 0x100000001B3u;
    return hash;
}

// A number that changes with the addresses of the host's interfaces, whatever their order.
// Asks the kernel only; 0 when that fails.
uint64_t interfaceAddresses() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return 0;
    uint64_t sum = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr)
            continue;
        constexpr uint64_t SEED = 0xCBF29CE484222325u;
        if (entry->ifa_addr->sa_family == AF_INET) {
            const auto *address = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
            sum += mixed(SEED, &address->sin_addr, sizeof address->sin_addr);
        } else if (entry->ifa_addr->sa_family == AF_INET6) {
            const auto *address = reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr);
            sum += mixed(SEED, &address->sin6_addr, sizeof address->sin6_addr);
        }
    }
    freeifaddrs(list);
    return sum;
}

} // namespace

bool hostOutOfDate;

bool readHostName(HostName *name) {
    memset(*name, 0, sizeof *name);
    (void)osSocketStartup();
    const int32_t result = osGetHostName(*name, HOST_NAME_SIZE);
    osSocketCleanup();
    return result == 0;
}

void lookUpHost(HostNumber *host) {
    const CancellationOff off;
    *host = {};
    if (!readHostName(&host->name))
        return;
    host->addresses = interfaceAddresses(); // before the question: what changes meanwhile shows
    (void)osSocketStartup();
    host->number = osGetHostID();
    osSocketCleanup();
    host->knownAt = monotonicNs();
}

void keepHost(const HostNumber *host) {
    if (host->number == 0)
        return;
    known = *host;
    __atomic_store_n(&hostOutOfDate, false, __ATOMIC_RELAXED);
}

uint64_t hostNumber(const HostName &name) {
    if (known.number == 0) {
        lookUpHost(&known);
    } else if (monotonicNs() - known.knownAt >= KNOWN_FOR_NS || strcmp(known.name, name) != 0 ||
               known.addresses != interfaceAddresses()) {
        __atomic_store_n(&hostOutOfDate, true, __ATOMIC_RELAXED);
    }
    return known.number;
}
