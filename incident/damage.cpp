/* SPDX-License-Identifier: MIT */
/* damage.cpp - what result codes mean for an export. */
#include "damage.h"

#include <algorithm>

#include "message.h"
#include "zk_layout.h"
#include "zkstatus.h"

static constexpr tool_message_t NO_ADVICE = {};

struct damage_row_t {
  int code;
  int status;
  tool_message_t reason;
  tool_message_t advice = NO_ADVICE; /* what helps */
};
static constexpr damage_row_t ROWS[] = {
    {ZELK_LOCK, EXIT_NOT_LOCKED, TOOL_MSG_NOT_LOCKED},
    {ZELK_FILE_CORRUPT, EXIT_CORRUPT, TOOL_MSG_DAMAGED},
    {ZELK_NO_MEMORY, EXIT_NO_MEMORY, TOOL_MSG_NO_MEMORY},
    {ZELK_FILE_MISSING, EXIT_NO_STACK, TOOL_MSG_NO_STACK, TOOL_MSG_HOW_TO_SEE_STACKS},
    {ZELK_NO_ACCESS, EXIT_NO_STACK, TOOL_MSG_NO_ACCESS, TOOL_MSG_WHO_READS},
    {ZELK_UNSUPPORTED, EXIT_LATER_VERSION, TOOL_MSG_STACK_OF_LATER_VERSION},
    {ZELK_INV_FID, EXIT_BAD_EID, TOOL_MSG_NOT_A_STACK_ID, TOOL_MSG_HOW_TO_DECODE},
    {ZELK_INV_STACKNAME, EXIT_BAD_EID, TOOL_MSG_NO_STACK_NAME},
    {ZELK_REMOTE_FID, EXIT_REMOTE, TOOL_MSG_OTHER_NODE, TOOL_MSG_HOW_TO_DECODE},
    {ZELK_TOO_MANY, EXIT_UNEXPECTED, TOOL_MSG_TOO_MANY_FILES},
    {ZELK_DIR_MISSING, EXIT_UNEXPECTED, TOOL_MSG_DIRECTORY_MISSING, TOOL_MSG_HOW_TO_MAKE_FOLDER},
    {ZELK_DIR_NO_ACCESS, EXIT_UNEXPECTED, TOOL_MSG_DIRECTORY_NOT_READ, TOOL_MSG_WHO_READS}};
static constexpr damage_row_t UNEXPECTED = {ZELK_FAILURE, EXIT_UNEXPECTED, TOOL_MSG_CANNOT_READ};

static const damage_row_t& row_of(int code) {
  for (const damage_row_t& row : ROWS)
    if (row.code == code) return row;
  return UNEXPECTED;
}

damage_t damage_of(int code) {
  return {code, -1, english_text(row_of(code).reason)};
}

std::string reason_of(int code, const std::string& path) {
  const damage_row_t& row = row_of(code);
  std::string reason = message_text(row.reason);
  if (row.advice == NO_ADVICE || !path.starts_with(ZELK_STACK_DIR)) return reason;
  return reason + "; " +
         (row.advice == TOOL_MSG_WHO_READS ? message_text(row.advice, {"zelk"}) : message_text(row.advice));
}

bool is_no_stack(const damage_t& damage) {
  return damage.code == ZELK_FILE_CORRUPT && damage.offset >= 0 && damage.offset < ZK_STACK_RECORDS_MIN;
}

std::string damage_text(const damage_t& damage) {
  return damage.reason + (damage.offset >= 0 ? " (at offset " + std::to_string(damage.offset) + ")" : "");
}

std::string told_damage(const damage_t& damage, const std::string& path) {
  if (damage.reason == english_text(TOOL_MSG_TOO_LARGE)) return message_text(TOOL_MSG_TOO_LARGE);
  if (damage.offset < 0) return damage == damage_of(damage.code) ? reason_of(damage.code, path) : damage.reason;
  return damage_text(damage) + (is_no_stack(damage) ? "" : "; " + message_text(TOOL_MSG_HOW_TO_SET_ASIDE));
}

int status_of(int code) {
  return row_of(code).status;
}

int worst_status(int one, int other) {
  for (int status : {EXIT_CORRUPT, EXIT_NOT_LOCKED, EXIT_NO_STACK})
    if (one == status || other == status) return status;
  return std::max(one, other);
}
