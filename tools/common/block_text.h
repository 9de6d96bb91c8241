// SPDX-License-Identifier: Apache-2.0
// The text of a record that carries an argument block in place of one, as the record of a
// context does whose message came from a catalogue.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// Makes the text of a whole block, "(" to ")". A block with the number 0 holds the pieces
// and the values of a message that was found when it was written: they are joined. Any
// other number is a message's whose words were missing then, with its arguments: it is
// shown by the catalogues of QDLIS_CATALOG when they have it, in the message locale of the
// process, and the arguments fit; otherwise the arguments are joined by blanks. False for
// a block that is damaged, one without arguments, and one beyond 1 MB, whose arguments could
// take too much memory.
bool renderBlock(std::string_view block, std::string &text);

} // namespace tools
