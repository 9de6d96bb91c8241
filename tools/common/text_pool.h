// SPDX-License-Identifier: Apache-2.0
// Many short texts, such as the names of a directory's files, without an allocation for each.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace tools {

struct TextPool {
    // A copy with a NUL behind it, which lives as long as the pool.
    const char *keep(std::string_view text) {
        const size_t size = text.size() + 1;
        if (left < size) {
            left = std::max(size, BLOCK);
            blocks.emplace_back(new char[left]);
            next = blocks.back().get();
        }
        char *const kept = next;
        std::memcpy(kept, text.data(), text.size());
        kept[text.size()] = '\0';
        next += size;
        left -= size;
        return kept;
    }

  private:
    static constexpr size_t BLOCK = 65536;
    std::vector<std::unique_ptr<char[]>> blocks;
    char *next = nullptr;
    size_t left = 0;
};

} // namespace tools
