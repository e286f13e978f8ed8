/* SPDX-License-Identifier: MIT */
/* message.h - what the companion commands say to their user, in the user's language where the catalog has it. */
#pragma once

#include <string>
#include <string_view>
#include <vector>

/* Messages by name. The texts, with their arguments, are in companions.msg. */
enum tool_message_t : int {
#include "companions_names.inc"
};

/* Opens the message catalog of the locale, once it has been set. Without one the built-in texts are used. */
void open_messages();

/* The text of a message with its arguments filled in; a translation that takes other arguments is not used. Leaves errno
 * as it was. */
std::string message_text(tool_message_t message, const std::vector<std::string>& values = {});

/* The built-in text of a message without arguments, for output that programs read. */
const char* english_text(tool_message_t message);
