// SPDX-License-Identifier: Apache-2.0
// What the two side-by-side programs share: contenders, each of which writes one formatted
// message of about 80 bytes, with one number and one text, so that it is in the kernel when
// the call returns; and how one of them is measured beside the base loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <pthread.h>
#include <string>
#include <vector>

#define MESSAGE_FORMAT "request %d of %s took longer than was expected and will be tried once more"

constexpr char MESSAGE_TEXT[] = "storage";
constexpr size_t FILE_LIMIT = 100u << 20; // size at which a file is full
constexpr int FILES_KEPT = 3;
constexpr size_t BYTES_PER_MESSAGE = 140; // about
constexpr uint64_t ROLL_KILOBYTES = 64;   // of a file where rollovers are measured
constexpr char ROTATION[] = "rotation";   // what the peers' program calls it

struct Contender {
    std::string name;
    std::function<void(const std::string &directory)> open; // the directory exists and is empty
    std::function<void(int number)> log;
    std::function<void()> close;
};

struct Settings {
    int rounds = 15;
    int messages = 20000; // of one thread; several write twice as many
    std::string json;
    std::string only;
    std::string directory = "bench-out";
};
extern Settings settings;

// One value per round. The base loop's calls are made in turns with the contender's, so
// that both meet the machine in the same state.
struct Figures {
    std::vector<double> p50Ns;
    std::vector<double> oneThread;          // mean of a call, over the base loop's
    std::vector<double> p50;                // over the base loop's
    std::vector<double> p999;               // over the base loop's
    std::vector<double> eightThreads;       // ns per message, over the locked base loop's
    std::vector<double> eightOverOneThread; // ns per message

    std::vector<std::vector<double> *> all() {
        return {&p50Ns, &oneThread, &p50, &p999, &eightThreads, &eightOverOneThread};
    }
};

int64_t now(); // monotonic ns
double median(std::vector<double> values);
double clockCost(); // of two readings of the clock
std::string freshDirectory(const std::string &name);

// ---- the base loop: clock, two snprintf, fstat and one write on an O_APPEND file --------

extern pthread_mutex_t mutex; // of what is locked
int openLog(const std::string &directory);
void writeAll(int descriptor, const char *line, size_t length);
size_t makeLine(char (&line)[512], int number);
void baseLoop(int descriptor, int number);
void lockedBaseLoop(int descriptor, int number);

// ---- measuring --------------------------------------------------------------------------

// Adds the values of one round. clock: clockCost().
void measure(const Contender &contender, double clock, Figures &figures);

// ns of one rollover: the median of the calls that roll over, which are the slowest
// ones of a run over that many files, less the median call.
double rolloverCost(const Contender &rolling);
