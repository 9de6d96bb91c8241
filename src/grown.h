// SPDX-License-Identifier: Apache-2.0
// A growable array of plain records, for every unit of the libraries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

// When memory runs out the array stays as it was. Records move when it grows.
template<class Record>
struct Grown {
    static_assert(std::is_trivially_copyable_v<Record>, "records are moved as bytes");
    static constexpr size_t FIRST_ROOM = sizeof(Record) == 1 ? 256 : 64;

    Grown() = default;
    ~Grown() { free(items); }
    Grown(const Grown &) = delete;
    Grown &operator=(const Grown &) = delete;

    // Makes room for so many more; false without memory.
    bool reserve(size_t more) {
        if (more <= capacity - count)
            return true;
        if (more > SIZE_MAX / sizeof(Record) / 2 - count)
            return false;
        size_t room = capacity == 0 ? FIRST_ROOM : capacity * 2;
        if (room < count + more)
            room = count + more;
        auto *moved = static_cast<Record *>(realloc(items, room * sizeof(Record)));
        if (moved == nullptr)
            return false;
        items = moved;
        capacity = room;
        return true;
    }
    // A new last record, zeroed; null without memory.
    Record *add() {
        if (!reserve(1))
            return nullptr;
        items[count] = Record();
        return &items[count++];
    }
    // Adds copies of records that lie elsewhere.
    bool append(const Record *records, size_t more) {
        if (!reserve(more))
            return false;
        if (more != 0)
            memcpy(items + count, records, more * sizeof(Record));
        count += more;
        return true;
    }
    void clear() { free(release()); }
    // Gives the records away, to be freed with free; the array is empty then.
    Record *release() {
        Record *given = items;
        items = nullptr;
        count = capacity = 0;
        return given;
    }
    Record *begin() { return items; }
    Record *end() { return items + count; }

    Record *items = nullptr;
    size_t count = 0;
    size_t capacity = 0;
};
