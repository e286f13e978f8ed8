/* SPDX-License-Identifier: MIT */
/* use_error_ids.c - makes an Error ID as a recording program does, and takes it apart again.
 *
 *   use_error_ids            for a syslog message at facility local0, severity "error"
 *   use_error_ids STACK      for an incident in the Error Stack file STACK, a path into ZELK_STACK_DIR
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qx_zelk.h"

enum {
  FACILITY = 128, /* local0 */
  SEVERITY = 3,
  NO_FACILITY = -1,
  NO_TEMPLATE = 0,
  NO_TRACE = 0,
  STACK_FILES_MAX = 4
};

/* Puts the address of this node where generating an Error ID looks for it. */
static int publish_node_address(void) {
  char code[ZELK_ADDR_CODE_SIZE] = "";
  char type = '\0';
  const int result = zk_get_ipaddr(NO_TRACE, NULL, code, &type);
  if (result != ZELK_SUCCESS) {
    fprintf(stderr, "zk_get_ipaddr: %d\n", result);
    return -1;
  }
  char value[ZELK_ADDR_CODE_SIZE + 1];
  snprintf(value, sizeof value, "%s%c", code, type);
  if (setenv("ZELKADDR", value, 1) != 0) {
    perror("setenv");
    return -1;
  }
  return 0;
}

static int show_parts(const char* eid) {
  int is_local = 0, version = 0, location = 0, facility = 0, severity = 0, is_ipv6 = 0;
  unsigned int label = 0;
  char stack_files[STACK_FILES_MAX][ZELK_FILE_SLOT_SIZE] = {{0}};
  struct timeval made = {0};
  unsigned char address[16] = {0};
  const int result = zk_decode_eid_2(NO_TRACE, NULL, eid, &is_local, &version, &location, stack_files[0],
                                     STACK_FILES_MAX, &label, &facility, &severity, &made, address, &is_ipv6);
  if (result != ZELK_SUCCESS && result != ZELK_FILE_MISSING) {
    fprintf(stderr, "zk_decode_eid_2: %d\n", result);
    return -1;
  }

  char address_text[INET6_ADDRSTRLEN] = "";
  inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, address, address_text, sizeof address_text);
  printf("version     %d\n", version);
  printf("location    %d\n", location);
  printf("this node   %s\n", is_local ? "yes" : "no");
  printf("time stamp  %" PRId64 ".%06" PRId64 "\n", (int64_t)made.tv_sec, (int64_t)made.tv_usec);
  printf("address     %s\n", address_text);
  if (location == ZELK_LOCATION_SYSLOG) printf("selector    %d.%d\n", facility / 8, severity);
  for (int slot = 0; slot < STACK_FILES_MAX && stack_files[slot][0] != '\0'; ++slot)
    printf("stack file  %s\n", stack_files[slot]);
  if (result == ZELK_FILE_MISSING) {
    fputs("no such stack file in " ZELK_STACK_DIR "\n", stderr);
    return -1;
  }
  return 0;
}

int main(int argc, char** argv) {
  const char* stack_file = argc > 1 ? argv[1] : NULL;
  if (publish_node_address() != 0) return EXIT_FAILURE;

  zk_eid_t eid = "";
  long seconds = 0;
  const int result = zk_generate_eid_2(NO_TRACE, NULL, stack_file, NO_TEMPLATE,
                                       stack_file != NULL ? NO_FACILITY : FACILITY, SEVERITY, &seconds, eid);
  if (result != ZELK_SUCCESS) {
    fprintf(stderr, "zk_generate_eid_2: %d\n", result);
    return EXIT_FAILURE;
  }
  printf("error id    %s\n", eid);
  if (show_parts(eid) != 0) return EXIT_FAILURE;
  return fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
