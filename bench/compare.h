// Contenders of the side-by-side program: each writes one formatted message of
// about 80 bytes, with one number and one text, so that it is in the kernel when
// the call returns.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#define MESSAGE_FORMAT "request %d of %s took longer than was expected and will be tried once more"

constexpr char MESSAGE_TEXT[] = "storage";
constexpr size_t FILE_LIMIT = 100u << 20; // size at which a file is full
constexpr int FILES_KEPT = 3;

struct Contender {
    std::string name;
    std::function<void(const std::string &directory)> open; // the directory exists and is empty
    std::function<void(int number)> log;
    std::function<void()> close;
};

std::vector<Contender> peers();

// One rotation of the peer that is compared with our rollover: logs into files of
// `limit` bytes, FILES_KEPT of them kept.
Contender rotatingPeer(size_t limit);
