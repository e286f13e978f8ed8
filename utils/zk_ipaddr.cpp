/* SPDX-License-Identifier: MIT */
/* zk_ipaddr.cpp - the addresses of this node: found at its network interfaces, encoded for an Error ID, decoded and
 * recognised again. */
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <span>

#include "zk_eid_layout.h"
#include "zk_io.h"
#include "zk_trace.h"

/* The interfaces that a query can yield: the list of a caller has a slot for each, and an empty one. */
constexpr size_t INTERFACES_MAX = ZELK_ADDR_LIST_SLOTS - 1;

constexpr size_t GROUP_WIDTH = 6; /* of the digits of a word in the code of an address */
static_assert(ZK_ADDR_WORDS * GROUP_WIDTH == ZK_ADDR_CODE_WIDTH);

using addr_text_t = std::array<char, ZELK_ADDR_SLOT_SIZE>;

/* Takes the address of an interface. Returns 1; 0 for an interface without an IPv4 address, or one that has vanished
 * since the interfaces were listed; -1 with errno set when it cannot be queried. */
static int query_address(const zk_trace_t& trace, int fildes, const struct ifreq& interface, addr_text_t* text,
                         bool* is_up_loopback) {
  struct ifreq request = interface; /* the flags take the place of the address */
  if (zk_retry([&] { return ioctl(fildes, SIOCGIFFLAGS, &request); }) < 0)
    return errno == ENODEV || errno == ENXIO || errno == EADDRNOTAVAIL ? 0 : -1;
  if (interface.ifr_addr.sa_family != AF_INET) return 0;

  struct sockaddr_in address;
  std::memcpy(&address, &interface.ifr_addr, sizeof(address));
  inet_ntop(AF_INET, &address.sin_addr, text->data(), ZELK_ADDR_SLOT_SIZE);
  const unsigned int flags = static_cast<unsigned short>(request.ifr_flags);
  const bool is_up = (flags & IFF_UP) != 0;
  const bool is_loopback = (flags & IFF_LOOPBACK) != 0;
  zk_trace(trace, "Adapt Info: %s %.8x address=%s %s %s %s", interface.ifr_name, flags, text->data(), "AF_INET",
           is_up ? "IFF_UP" : " ", is_loopback ? "IFF_LOOPBACK" : " ");
  *is_up_loopback = is_up && is_loopback;
  return 1;
}

/* Stores every address, or the first: of the loopbacks that are up, the first gives way to whatever comes next. */
static int store_addresses(const zk_trace_t& trace, int fildes, std::span<const struct ifreq> interfaces, char* addr,
                           int findfirst, int* num_found) {
  addr_text_t first = {};
  for (const struct ifreq& interface : interfaces) {
    addr_text_t text = {};
    bool is_up_loopback = false;
    const int found = query_address(trace, fildes, interface, &text, &is_up_loopback);
    if (found < 0) return -1;
    if (found == 0) continue;
    if (findfirst == 0) {
      std::memcpy(addr, text.data(), std::strlen(text.data()) + 1);
      addr += ZELK_ADDR_SLOT_SIZE;
      if (num_found != nullptr) ++*num_found;
      continue;
    }
    const bool is_second = first[0] != '\0';
    first = text;
    if (is_second || !is_up_loopback) break;
  }
  if (findfirst == 0) return 0;
  std::memcpy(addr, first.data(), std::strlen(first.data()) + 1);
  if (num_found != nullptr) *num_found = 1;
  return 0;
}

int zk_obtain_ipaddrs(int debug_active, const char* debug_file, char* addr, int findfirst, int* num_found) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  const int fildes = zk_retry([&] { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
  if (fildes < 0)
    return zk_failed(trace, ZELK_FAILURE, "Cannot create socket - error code %d\nReturning %s(%d) to caller", errno);

  std::array<struct ifreq, INTERFACES_MAX> interfaces;
  struct ifconf list = {};
  list.ifc_len = sizeof(interfaces);
  list.ifc_req = interfaces.data();
  int failed_query = zk_retry([&] { return ioctl(fildes, SIOCGIFCONF, &list); }) < 0 ? 1 : 0;
  const size_t count = std::min(static_cast<size_t>(list.ifc_len) / sizeof(struct ifreq), INTERFACES_MAX);
  if (failed_query == 0 && store_addresses(trace, fildes, {interfaces.data(), count}, addr, findfirst, num_found) != 0)
    failed_query = 2;
  const int error = errno;
  close(fildes);
  if (failed_query != 0)
    return zk_failed(trace, ZELK_FAILURE,
                     "Cannot issue ioctl(%d) on socket - error code %d\nReturning %s(%d) to caller", failed_query,
                     error);
  return zk_succeeded(trace, "Returning %s(%d) to the caller");
}

int zk_is_addr_ipv6_type(const char* addr) {
  static constexpr char DIGITS[] = "0123456789";
  for (int points = 0; points < 3; ++points) {
    addr += std::strspn(addr, DIGITS);
    if (*addr++ != '.') return 1;
  }
  return addr[std::strspn(addr, DIGITS)] == '\0' ? 0 : 1;
}

int zk_get_ipaddr(int debug_active, const char* debug_file, char* ip_addr, char* ipv6_flag) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (ip_addr == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM3, "Parameter ip_addr is set to NULL\nReturning %s(%d) to caller");
  if (ipv6_flag == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4, "Parameter ipv6_flag is set to NULL\nReturning %s(%d) to caller");

  addr_text_t text = {};
  if (zk_obtain_ipaddrs(debug_active, debug_file, text.data(), 1, nullptr) != ZELK_SUCCESS) {
    /* Whatever the flag says: a trace file that is named learns of it. */
    const zk_trace_t always = {1, debug_file, __func__};
    return zk_failed(always, ZELK_FAILURE, "Unable to query any net adapters - return %s(%d)");
  }

  /* A text that is no address leaves the words 0. */
  const bool is_ipv6 = zk_is_addr_ipv6_type(text.data()) != 0;
  zk_addr_words_t words = {};
  inet_pton(is_ipv6 ? AF_INET6 : AF_INET, text.data(), words.data());

  std::array<char, ZELK_ADDR_CODE_SIZE> code = {};
  for (size_t index = 0; index < ZK_ADDR_WORDS; ++index)
    zk_write_digits(ntohl(words[index]), code.data() + index * GROUP_WIDTH, GROUP_WIDTH);
  zk_trace(trace, "Obtained IP address %s for this node, encoded as %s\n", text.data(), code.data());
  std::memcpy(ip_addr, code.data(), code.size());
  *ipv6_flag = is_ipv6 ? ZK_IPV6_TYPE : ZK_IPV4_TYPE;
  return ZELK_SUCCESS;
}

int zk_conv_ipaddr(int debug_active, const char* debug_file, const char* ip64_rep, char ipv6_flag, void* ip_addr) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (ip64_rep == nullptr || ip64_rep[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3,
                     "Invalid pointer or string provided for IP address - returning %s(%d) to caller");
  if (ipv6_flag != ZK_IPV4_TYPE && ipv6_flag != ZK_IPV6_TYPE)
    return zk_failed(trace, ZELK_INV_PARAM4, "Invalid IP address type provided: '%c' - returning %s(%d) to caller",
                     ipv6_flag);

  const size_t count = ipv6_flag == ZK_IPV4_TYPE ? 1 : ZK_ADDR_WORDS;
  const auto code = zk_field_text<ZK_ADDR_CODE_WIDTH>(ip64_rep);
  zk_addr_words_t words = {};
  for (size_t index = 0; index < count; ++index) {
    const auto group = zk_field_text<GROUP_WIDTH>(code.data() + index * GROUP_WIDTH);
    words[index] = htonl(static_cast<uint32_t>(zk_a64l(group.data())));
  }
  /* Of IPv6 the text shows the first word only: one conversion, and letters. */
  zk_trace(trace, "IP Address representation %s converted to 0x%x%s", code.data(), ntohl(words[0]),
           count == 1 ? "" : "lxlxlx");
  std::memcpy(ip_addr, words.data(), count * sizeof(words[0]));
  return ZELK_SUCCESS;
}

int zk_test_ipaddr(int debug_active, const char* debug_file, const char* ip_addr, const char* ip_list) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (ip_addr == nullptr || ip_addr[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Invalid string provided for ip_addr\nReturning %s(%d)");
  if (ip_list == nullptr || ip_list[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM4, "Invalid array provided for ip_list\nReturning %s(%d)");

  int index = 0;
  for (const char* slot = ip_list; *slot != '\0'; slot += ZELK_ADDR_SLOT_SIZE, ++index)
    if (std::strncmp(slot, ip_addr, ZELK_ADDR_SLOT_SIZE) == 0)
      return zk_succeeded(trace, "Match found for address %s at index %d\nReturning %s(%d)", ip_addr, index);
  return zk_failed(trace, ZELK_FAILURE,
                   "No matches fo address %s found in %d known base addresses\n"
                   "Assuming this address not on this node\nReturning %s(%d)",
                   ip_addr, index);
}
