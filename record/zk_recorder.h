/* SPDX-License-Identifier: MIT */
/* zk_recorder.h - for those who say more than a result code when a stack is refused. */
#pragma once

#include "qx_record.h"
#include "zk_damage.h"

/* As zk_open_recorder; where the result is ZELK_FILE_CORRUPT, `*damage` says what is wrong. */
int zk_open_recorder_or_say(const zk_trace_t& trace, const char* stack_file, zk_recorder_t** recorder,
                            zk_damage_t* damage);

/* What was wrong when zk_record_incident returned ZELK_FILE_CORRUPT. */
zk_damage_t zk_recorder_damage(const zk_recorder_t* recorder);
