// SPDX-License-Identifier: Apache-2.0
// Random sequences of calls, with clock steps and with others who touch the files, done to
// the library and to a model of the rules (model.h). After each step the results and every
// byte of every file have to be the same. A sequence that differs is made as short as it
// can be and shown.
//
// Environment: MODEL_SEQUENCES, how many (200); MODEL_FIRST, the first seed (1);
// MODEL_LENGTH, steps of each (70).
#include "model/library.h"
#include "model/steps.h"

#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace model;

namespace {

struct Counts {
    uint64_t sequences = 0;
    uint64_t steps = 0;
    uint64_t records = 0;
    uint64_t files = 0; // compared
    Seen seen;
};

bool deviceWasFull;         // the process remembers it
int64_t steadyMs = 1000000; // goes on from sequence to sequence: it is never set back

// ---- clocks of both --------------------------------------------------------------------

// The header's zone comes from UTC's clock face read as a local time. In the hour that comes
// twice when summer time ends, either reading is right.
bool isZoneAmbiguous(int64_t seconds) {
    const time_t at = seconds;
    for (const int summer : {0, 1}) {
        tm face = {};
        gmtime_r(&at, &face);
        const tm wanted = face;
        face.tm_isdst = summer;
        const time_t local = mktime(&face);
        tm shown = {};
        localtime_r(&local, &shown);
        if (shown.tm_hour != wanted.tm_hour || shown.tm_isdst != summer)
            return false;
    }
    return true;
}

// What depends on how long ago something was shall not hang on the few milliseconds that
// the library waits somewhere: such ages are passed over, and so are the last moments of
// a second.
void passOverEdges(Model *model) {
    const auto isEdge = [](int64_t age, int64_t limit) { return age > limit - 60 && age < limit + 60; };
    Clock &clock = model->world.clock;
    for (int round = 0; round < 100; ++round) {
        int64_t pass = 0;
        for (const Handle &handle : model->handles) {
            const Series *series = handle.series.get();
            if (series == nullptr)
                continue;
            if (series->lookedAtMs != -1 && isEdge(clock.steadyMs - series->lookedAtMs, 900))
                pass = 125;
            if (series->file != nullptr && isEdge(clock.wallMs - series->file->modifiedMs, 2000))
                pass = 125;
        }
        if (isEdge(clock.steadyMs - model->clockChangedMs, 2000) ||
            isEdge(clock.steadyMs - model->hostKnownAtMs, 3600000))
            pass = 125;
        if (clock.wallMs % 1000 >= 600)
            pass = 1000 - clock.wallMs % 1000;
        if (isZoneAmbiguous(clock.wallMs / 1000))
            pass = 3600000;
        if (pass == 0)
            break;
        clock.wallMs += pass;
        clock.steadyMs += pass;
    }
    library::setClock(clock);
}

// After a step: the library may have waited where the model does not.
void followClock(Model *model) {
    const Clock before = model->world.clock;
    const Clock now = library::clock();
    const auto follow = [](int64_t *at, int64_t then, int64_t later) {
        if (*at == then)
            *at = later;
    };
    for (const Handle &handle : model->handles) {
        if (handle.series == nullptr)
            continue;
        follow(&handle.series->lookedAtMs, before.steadyMs, now.steadyMs);
        if (handle.series->file != nullptr)
            follow(&handle.series->file->modifiedMs, before.wallMs, now.wallMs);
    }
    follow(&model->clockChangedMs, before.steadyMs, now.steadyMs);
    follow(&model->hostKnownAtMs, before.steadyMs, now.steadyMs);
    model->world.clock = now;
}

// ---- comparison ------------------------------------------------------------------------

std::string excerpt(const std::string &bytes, size_t at) {
    const size_t from = at < 200 ? 0 : at - 200;
    std::string shown;
    for (const char byte : bytes.substr(from, 500)) {
        if (byte == '\n')
            shown += "\\n\n      ";
        else if (byte == '\r')
            shown += "\\r";
        else
            shown += byte;
    }
    return shown;
}

std::string describe(const Node &node, size_t at) {
    if (node.kind == NodeKind::Directory)
        return "a directory";
    if (node.kind == NodeKind::DanglingLink)
        return "a link";
    char mode[16];
    snprintf(mode, sizeof mode, "%03o", node.mode);
    return std::to_string(node.bytes.size()) + " bytes, mode " + mode + ":\n      " + excerpt(node.bytes, at);
}

// "" when they are the same.
std::string compare(const Model &model, Counts *counts) {
    const std::map<std::string, Node> real = library::directory();
    std::string difference;
    for (const auto &[path, node] : real)
        if (model.world.files.count(path) == 0)
            difference += "  only in the directory: " + path + ", " + describe(node, 0) + "\n";
    for (const auto &[path, node] : model.world.files) {
        ++counts->files;
        const auto at = real.find(path);
        if (at == real.end()) {
            difference += "  only in the model: " + path + ", " + describe(*node, 0) + "\n";
            continue;
        }
        const Node &there = at->second;
        if (there.kind == node->kind &&
            (node->kind != NodeKind::File || (there.bytes == node->bytes && there.mode == node->mode)))
            continue;
        size_t first = 0;
        while (first < there.bytes.size() && first < node->bytes.size() &&
               there.bytes[first] == node->bytes[first])
            ++first;
        difference += "  " + path + " differs at byte " + std::to_string(first) +
                      "\n    model: " + describe(*node, first) + "\n    library: " + describe(there, first) +
                      "\n";
    }
    return difference;
}

// ---- one sequence ----------------------------------------------------------------------

void place(Configuration *configuration, const std::string &home) {
    for (auto &[name, keys] : configuration->sections)
        for (auto &[key, value] : keys)
            if (value.compare(0, 5, "HOME/") == 0)
                value = home + value.substr(5);
}

// One message, or one of its repetitions.
std::string once(Model *model, const Step &wanted, Counts *counts) {
    passOverEdges(model);
    if (!isPossible(*model, wanted))
        return "";
    if (wanted.op == Op::Files) {
        const FileAction action = resolve(*model, wanted);
        apply(model, action);
        library::apply(action);
        return "";
    }
    const Step step = fitted(*model, wanted);
    const uint64_t recordsBefore = model->recordsWritten;
    const Outcome expected = apply(model, step);
    const Outcome got = library::apply(step);
    followClock(model);
    counts->records += model->recordsWritten - recordsBefore;
    if (expected == got)
        return "";
    return "  model: result " + std::to_string(expected.result) + ", value " +
           std::to_string(expected.value) + "\n  library: result " + std::to_string(got.result) + ", value " +
           std::to_string(got.value) + "\n";
}

struct Rule {
    const char *name;
    uint64_t Seen::*count;
};

const Rule RULES[] = {{"rollovers", &Seen::rollovers},   {"by the clock", &Seen::timedRollovers},
                      {"reopenings", &Seen::reopenings}, {"recycled files", &Seen::recycled},
                      {"held back", &Seen::heldBack},    {"contexts written again", &Seen::contextsAgain},
                      {"files gone", &Seen::gone},       {"torn lines", &Seen::tornLines},
                      {"series ahead", &Seen::caughtUp}, {"failed writes", &Seen::failures}};

void add(Seen *sum, const Seen &seen) {
    for (const Rule &rule : RULES)
        sum->*rule.count += seen.*rule.count;
}

// Where the two differ, and how; "" when they do not.
std::string run(const Sequence &sequence, Mutation mutation, Counts *counts) {
    const std::string home = std::filesystem::current_path().string() + "/";
    for (const auto &entry : std::filesystem::directory_iterator("."))
        std::filesystem::remove_all(entry.path());
    Model model;
    model.mutation = mutation;
    model.handles.resize(SLOTS);
    World &world = model.world;
    steadyMs += 100000;
    world.clock = {sequence.startMs, steadyMs};
    world.hostName = sequence.hostName;
    world.hostId = hostIdOf(sequence.hostAddress);
    world.deviceWasFull = deviceWasFull;
    world.encoding = sequence.encoding;
    world.process = library::process();
    world.thread = library::thread();
    world.home = home;
    Sequence placed = sequence;
    place(&placed.configuration, home);
    library::prepare(placed, world.clock);
    world.configuration = placed.configuration;
    world.configuration.changed = model.seconds();
    std::string difference;
    for (size_t i = 0; i < placed.steps.size() && difference.empty(); ++i) {
        Step &step = placed.steps[i];
        place(&step.configuration, home);
        const int count = step.op == Op::Message ? step.message.count : 1;
        for (int repetition = 0; repetition < count && difference.empty(); ++repetition) {
            if (repetition == 0 || step.message.spread) {
                ++world.clock.wallMs;
                ++world.clock.steadyMs;
            }
            difference = once(&model, step, counts);
        }
        difference += compare(model, counts);
        ++counts->steps;
        if (!difference.empty())
            difference = "after step " + std::to_string(i + 1) + " at " + std::to_string(world.clock.wallMs) +
                         " ms:\n" + difference;
    }
    library::closeEverything();
    steadyMs = world.clock.steadyMs;
    deviceWasFull = world.deviceWasFull;
    add(&counts->seen, model.seen);
    ++counts->sequences;
    return difference;
}

// Drops steps while the rest still differs.
Sequence shrunk(Sequence sequence, Mutation mutation) {
    Counts ignored;
    size_t piece = sequence.steps.size() / 2;
    for (int tries = 0; piece > 0 && tries < 2000;) {
        bool dropped = false;
        for (size_t at = 0; at + piece <= sequence.steps.size() && tries < 2000;) {
            Sequence shorter = sequence;
            shorter.steps.erase(shorter.steps.begin() + static_cast<long>(at),
                                shorter.steps.begin() + static_cast<long>(at + piece));
            ++tries;
            if (!run(shorter, mutation, &ignored).empty()) {
                sequence = shorter;
                dropped = true;
            } else {
                at += piece;
            }
        }
        if (!dropped || piece > 1)
            piece = piece == 1 && !dropped ? 0 : std::max<size_t>(piece / 2, dropped ? 1 : piece / 2);
    }
    for (Step &step : sequence.steps) { // and messages that are sent several times
        const int count = step.message.count;
        step.message.count = 1;
        if (run(sequence, mutation, &ignored).empty())
            step.message.count = count;
    }
    return sequence;
}

std::string report(const Sequence &sequence, const std::string &difference) {
    std::string shown = "seed " + std::to_string(sequence.seed) + ", zone " + sequence.zone + ", start " +
                        std::to_string(sequence.startMs) + " ms, " +
                        (sequence.encoding == Encoding::Utf8 ? "UTF-8" : "ISO-8859-1") + ", host " +
                        sequence.hostName + " " + sequence.hostAddress + "\n" + show(sequence.configuration);
    for (size_t i = 0; i < sequence.steps.size(); ++i)
        shown += std::to_string(i + 1) + ". " + show(sequence.steps[i]) + "\n";
    return shown + difference;
}

uint64_t numberOf(const char *variable, uint64_t standard) {
    const char *value = getenv(variable);
    return value != nullptr ? strtoull(value, nullptr, 10) : standard;
}

} // namespace

TEST(WritingModel, EveryFileIsWhatTheRulesSay) {
    const uint64_t first = numberOf("MODEL_FIRST", 1);
    const uint64_t sequences = numberOf("MODEL_SEQUENCES", 200);
    const size_t length = numberOf("MODEL_LENGTH", 70);
    Counts counts;
    for (uint64_t seed = first; seed < first + sequences; ++seed) {
        const Sequence sequence = makeSequence(seed, length);
        if (run(sequence, Mutation::None, &counts).empty())
            continue;
        const Sequence shorter = shrunk(sequence, Mutation::None);
        Counts ignored;
        FAIL() << report(shorter, run(shorter, Mutation::None, &ignored));
    }
    EXPECT_GT(counts.records, 0u);
    for (const Rule &rule : RULES) {
        printf("%s%" PRIu64 " %s", &rule == RULES ? "" : ", ", counts.seen.*rule.count, rule.name);
        if (sequences >= 100) {
            EXPECT_GT(counts.seen.*rule.count, 0u) << rule.name << ": the sequences never come to it";
        }
    }
    printf("\n");
    printf("%" PRIu64 " sequences, %" PRIu64 " steps, %" PRIu64 " records, %" PRIu64
           " files compared: no difference\n",
           counts.sequences, counts.steps, counts.records, counts.files);
}

// A comparison that cannot fail is none: each of the model's rules that is broken on purpose
// has to be found.
class WritingModelMutation : public testing::TestWithParam<int> {};

TEST_P(WritingModelMutation, IsFound) {
    Counts counts;
    for (uint64_t seed = 1; seed <= 500; ++seed)
        if (!run(makeSequence(seed, 70), static_cast<Mutation>(GetParam()), &counts).empty())
            return;
    FAIL() << "not found in " << counts.records << " records";
}

INSTANTIATE_TEST_SUITE_P(Each, WritingModelMutation,
                         testing::Range(static_cast<int>(Mutation::None) + 1,
                                        static_cast<int>(Mutation::End)));
