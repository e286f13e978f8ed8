/* SPDX-License-Identifier: MIT */
/* damage.h - why a stack, or an Error ID, cannot be exported whole. */
#pragma once

#include <string>

#include "qx_zelk.h"

struct damage_t {
  int code = 0;        /* ZELK_..., 0 for none */
  int64_t offset = -1; /* of what is damaged in a stack, -1 where there is no such place */
  std::string reason;  /* in English, also where the user reads another language: programs read it */
  bool operator==(const damage_t&) const = default;
};

/* What a failure of opening, or of an Error ID, means. */
damage_t damage_of(int code);

/* The same for the user, with what helps where `path` is in the stacks' folder, or an Error ID leads there. */
std::string reason_of(int code, const std::string& path = ZELK_STACK_DIR);

/* Whether a file is no Error Stack at all: it has no header of one. */
bool is_no_stack(const damage_t& damage);

/* Damage in one line, behind the name of a stack. */
std::string damage_text(const damage_t& damage);

/* The same for the user, of the stack with that path, with what helps. */
std::string told_damage(const damage_t& damage, const std::string& path);

/* Exit status of zkview for such a code. */
int status_of(int code);

/* The worse of two such statuses: damage, then a lock that cannot be had, then a stack that is missing. */
int worst_status(int one, int other);
