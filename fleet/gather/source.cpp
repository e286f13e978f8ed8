/* SPDX-License-Identifier: MIT */
/* source.cpp - what epoll is asked to tell of. */
#include "gather.h"

void watch(gather_t* gather, source_t* source, int fildes, uint32_t events) {
  const bool is_new = source->fildes != fildes;
  if (!is_new && source->events == events) return;
  epoll_event event = {};
  event.events = events;
  event.data.ptr = source;
  epoll_ctl(gather->epoll, is_new ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fildes, &event);
  source->fildes = fildes;
  source->events = events;
}

void unwatch(gather_t* gather, source_t* source) {
  if (source->fildes >= 0) epoll_ctl(gather->epoll, EPOLL_CTL_DEL, source->fildes, nullptr);
  source->fildes = -1;
  source->events = 0;
}
