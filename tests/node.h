/* SPDX-License-Identifier: MIT */
/* node.h - the network interfaces of a node, as a test wants them. To be included by one source of a program. */
#pragma once

#include "faults.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <optional>

struct adapter {
  std::string name, address;
  short flags;
  sa_family_t family = AF_INET;
};
constexpr short UP = IFF_UP, LOOPBACK = IFF_UP | IFF_LOOPBACK, DOWN = 0;

/* The interfaces; the machine's own when there is no list. */
static std::optional<std::vector<adapter>> node;

static int list_adapters(ifconf* list) {
  const size_t room = static_cast<size_t>(list->ifc_len) / sizeof(ifreq), count = std::min(node->size(), room);
  for (size_t index = 0; index < count; ++index) {
    const adapter& source = (*node)[index];
    ifreq& target = list->ifc_req[index] = {};
    source.name.copy(target.ifr_name, IFNAMSIZ - 1);
    target.ifr_addr.sa_family = source.family;
    inet_pton(AF_INET, source.address.c_str(), target.ifr_addr.sa_data + sizeof(in_port_t));
  }
  list->ifc_len = static_cast<int>(count * sizeof(ifreq));
  return 0;
}

static int tell_flags(ifreq* query) {
  for (const adapter& each : *node)
    if (each.name == query->ifr_name) query->ifr_flags = each.flags;
  return 0;
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  return is_refused("socket") ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}
extern "C" int ioctl(int fildes, unsigned long request, ...) noexcept {
  va_list more;
  va_start(more, request);
  void* argument = va_arg(more, void*);
  va_end(more);
  if (request == SIOCGIFCONF && is_refused("interfaces")) return -1;
  if (request == SIOCGIFFLAGS && is_refused("flags")) return -1;
  if (request == SIOCGIFCONF && node.has_value()) return list_adapters(static_cast<ifconf*>(argument));
  if (request == SIOCGIFFLAGS && node.has_value()) return tell_flags(static_cast<ifreq*>(argument));
  return static_cast<int>(syscall(SYS_ioctl, fildes, request, argument));
}
