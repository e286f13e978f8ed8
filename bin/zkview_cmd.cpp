/* SPDX-License-Identifier: MIT */
/* zkview_cmd.cpp - the command's message table, made from zkview_cmd.msg, and the name of its catalog. */
#include <clocale>

#include "qx_zelk.h"
#include "zk_msg.h"

/* Its size is that of the declaration, and each name of zk_msg.h stands for its number in the message source. */
const char* const zk_mesgtbl_zkview_cmd[] = {
#include "zkview_cmd.inc"
};
#include "zkview_numbers.inc"

const char zk_badid_zkview_cmd[44] = "Bad message id for message set zkview_cmd";

char* zk_get_msgcat_name(char* dstring, const char* catstring) {
  std::setlocale(LC_ALL, "");
  std::snprintf(dstring, ZELK_PATH_SIZE, "%s", catstring);
  return dstring;
}
