/* SPDX-License-Identifier: MIT */
/* zklist.h - what those who fill and those who print the lists of records share; zk_int.h has the rest. */
#ifndef ZKLIST_H
#define ZKLIST_H

#include "zk_int.h"

/* Whether `head` can be the head of a process list: its first three fields are zero. */
bool zk_is_list_head(const zk_proc_list_t* head);

#endif
