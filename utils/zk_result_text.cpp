/* SPDX-License-Identifier: MIT */
/* zk_result_text.cpp - what a result code means, in words. */
#include <pthread.h>

#include <cerrno>

#include "qx_zelk.h"
#include "zk_msg.h"

enum {
  RESULT_SET = 8,     /* of the catalog */
  UNKNOWN_RESULT = 1, /* stands for every number that is no result code */
};

/* In the order of the messages, whose numbers start at 1. */
static constexpr int RESULTS[] = {
#include "results_names.inc"
};
static constexpr const char* ENGLISH[] = {
#include "results.inc"
};

/* Number of the message of a result. */
static constexpr int message_of(int result) {
  int number = 0;
  for (int known : RESULTS) {
    ++number;
    if (known == result || known == UNKNOWN_RESULT) break; /* which is the last */
  }
  return number;
}

#define HAS_TEXT(name, value) &&message_of(name) != message_of(UNKNOWN_RESULT)
static_assert(true ZELK_RESULT_CODES(HAS_TEXT), "a result code has no text in results.msg");
#undef HAS_TEXT

static nl_catd catalog = ZK_NO_CATALOG;

/* The catalog stays open: texts of it have been handed out. */
static void open_catalog() {
  catalog = catopen(ZK_CATALOG_NAME, NL_CAT_LOCALE);
  if (catalog == ZK_NO_CATALOG) catalog = catopen(ZK_CATALOG_NAME, 0);
}

const char* zk_result_text(int result) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  const int error = errno;
  pthread_once(&once, open_catalog);
  const int number = message_of(result);
  const char* text = ENGLISH[number - 1];
  if (catalog != ZK_NO_CATALOG) text = catgets(catalog, RESULT_SET, number, text);
  errno = error;
  return text;
}
