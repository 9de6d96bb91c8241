// SPDX-License-Identifier: Apache-2.0
// Does the steps to the library, in the current directory, with clock and host replaced.
#pragma once

#include "model/steps.h"

#include <string>

namespace library {

// Clock, host, locale and zone of a sequence; nothing is open. The directory is empty.
void prepare(const model::Sequence &sequence, const model::Clock &clock);
model::Clock clock();
void setClock(const model::Clock &clock);

uint64_t process();
uint64_t thread();

void configure(const model::Configuration &configuration);
model::Outcome apply(const model::Step &step);
void apply(const model::FileAction &action);
void closeEverything();

// What the directory holds, as the model keeps it.
std::map<std::string, model::Node> directory();

} // namespace library
