/* zk_ipaddr.cpp - the addresses of this node: found at its network interfaces, encoded for an Error ID,
 * decoded and recognised again. */
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "qx_zelk.h"
#include "zk_eid_layout.h"
#include "zk_trace.h"

/* The interfaces that a query can yield: the list of a caller has a slot for each, and an empty one. */
constexpr size_t INTERFACES_MAX = ZELK_ADDR_LIST_SLOTS - 1;

/* An encoded address: a group of digits for each 32-bit word in network order. */
constexpr size_t GROUP_WIDTH = 6;
constexpr size_t CODE_LENGTH = ZELK_ADDR_CODE_SIZE - 1;
static_assert(ADDR_WORDS * GROUP_WIDTH == CODE_LENGTH);

using addr_text = std::array<char, ZELK_ADDR_SLOT_SIZE>;
using addr_words = std::array<uint32_t, ADDR_WORDS>; /* in network byte order */

static int query_interfaces(int fildes, unsigned long request, void* argument) {
  int result;
  do {
    result = ioctl(fildes, request, argument);
  } while (result < 0 && errno == EINTR);
  return result;
}

int zk_obtain_ipaddrs(int debug_active, const char* debug_file, char* addr, int findfirst, int* num_found) {
  int fildes;
  do {
    fildes = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  } while (fildes < 0 && errno == EINTR);
  if (fildes < 0) ZK_RETURN(ZELK_FAILURE, "Cannot create socket - error code %d\nReturning %s(%d) to caller", errno);

  std::array<struct ifreq, INTERFACES_MAX> interfaces = {};
  struct ifconf list = {};
  list.ifc_len = sizeof(interfaces);
  list.ifc_req = interfaces.data();
  if (query_interfaces(fildes, SIOCGIFCONF, &list) < 0) {
    const int error = errno;
    close(fildes);
    ZK_RETURN(ZELK_FAILURE, "Cannot issue ioctl(1) on socket - error code %d\nReturning %s(%d) to caller", error);
  }
  const size_t count = std::min(static_cast<size_t>(std::max(list.ifc_len, 0)) / sizeof(struct ifreq), INTERFACES_MAX);

  addr_text loopback = {};
  bool taken = false;
  char* slot = addr;
  for (size_t index = 0; index < count && !taken; ++index) {
    const struct ifreq& interface = interfaces[index];
    struct ifreq query = interface; /* the flags take the place of the address */
    if (query_interfaces(fildes, SIOCGIFFLAGS, &query) < 0) {
      const int error = errno;
      if (error == EADDRNOTAVAIL) continue;
      close(fildes);
      ZK_RETURN(ZELK_FAILURE, "Cannot issue ioctl(2) on socket - error code %d\nReturning %s(%d) to caller", error);
    }
    if (interface.ifr_addr.sa_family != AF_INET) continue;

    struct sockaddr_in address;
    std::memcpy(&address, &interface.ifr_addr, sizeof(address));
    addr_text text = {};
    inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    const size_t text_size = std::strlen(text.data()) + 1;
    const bool up = (query.ifr_flags & IFF_UP) != 0;
    const bool is_loopback = (query.ifr_flags & IFF_LOOPBACK) != 0;
    ZK_TRACE("Adapt Info: %s %.8x address=%s %s %s %s", interface.ifr_name,
             static_cast<unsigned int>(static_cast<unsigned short>(query.ifr_flags)), text.data(), "AF_INET",
             up ? "IFF_UP" : " ", is_loopback ? "IFF_LOOPBACK" : " ");

    if (findfirst == 0) {
      std::memcpy(slot, text.data(), text_size);
      slot += ZELK_ADDR_SLOT_SIZE;
      if (num_found != nullptr) ++*num_found;
    } else if (up && is_loopback && loopback[0] == '\0') {
      loopback = text;
    } else {
      std::memcpy(addr, text.data(), text_size);
      taken = true;
    }
  }
  if (findfirst != 0) {
    if (!taken) std::memcpy(addr, loopback.data(), std::strlen(loopback.data()) + 1);
    if (num_found != nullptr) *num_found = 1;
  }
  close(fildes);
  ZK_RETURN(ZELK_SUCCESS, "Returning %s(%d) to the caller");
}

int zk_is_addr_ipv6_type(const char* addr) {
  int segments = 1;
  for (; *addr != '\0'; ++addr) {
    if (*addr >= '0' && *addr <= '9') continue;
    if (*addr != '.') return 1;
    if (++segments > 4) return 1; /* also keeps the count small, however long the text */
  }
  return segments == 4 ? 0 : 1;
}

int zk_get_ipaddr(int debug_active, const char* debug_file, char* ip_addr, char* ipv6_flag) {
  if (ip_addr == nullptr) ZK_RETURN(ZELK_INV_PARAM3, "Parameter ip_addr is set to NULL\nReturning %s(%d) to caller");
  if (ipv6_flag == nullptr)
    ZK_RETURN(ZELK_INV_PARAM4, "Parameter ipv6_flag is set to NULL\nReturning %s(%d) to caller");

  addr_text text = {};
  if (zk_obtain_ipaddrs(debug_active, debug_file, text.data(), 1, nullptr) != ZELK_SUCCESS) {
    /* Written whatever the flag says: a trace file that is named learns of it. */
    zk_debug(debug_file, __func__, "Unable to query any net adapters - return %s(%d)", zk_result_name(ZELK_FAILURE),
             ZELK_FAILURE);
    return ZELK_FAILURE;
  }

  /* A text that is no address leaves the words 0. */
  const bool is_ipv6 = zk_is_addr_ipv6_type(text.data()) != 0;
  addr_words words = {};
  inet_pton(is_ipv6 ? AF_INET6 : AF_INET, text.data(), words.data());

  std::array<char, ZELK_ADDR_CODE_SIZE> code = {};
  std::memset(code.data(), ZERO_DIGIT, CODE_LENGTH);
  for (size_t index = 0; index < ADDR_WORDS; ++index) {
    std::array<char, DIGITS_SIZE> digits = {};
    zk_l64a_r(ntohl(words[index]), digits.data(), DIGITS_SIZE);
    std::memcpy(code.data() + index * GROUP_WIDTH, digits.data(), std::strlen(digits.data()));
  }
  ZK_TRACE("Obtained IP address %s for this node, encoded as %s\n", text.data(), code.data());
  std::memcpy(ip_addr, code.data(), code.size());
  *ipv6_flag = is_ipv6 ? IPV6_TYPE : IPV4_TYPE;
  return ZELK_SUCCESS;
}

int zk_conv_ipaddr(int debug_active, const char* debug_file, const char* ip64_rep, char ipv6_flag, void* ip_addr) {
  if (ip64_rep == nullptr || ip64_rep[0] == '\0')
    ZK_RETURN(ZELK_INV_PARAM3, "Invalid pointer or string provided for IP address - returning %s(%d) to caller");
  if (ipv6_flag != IPV4_TYPE && ipv6_flag != IPV6_TYPE)
    ZK_RETURN(ZELK_INV_PARAM4, "Invalid IP address type provided: '%c' - returning %s(%d) to caller", ipv6_flag);

  std::array<char, ZELK_ADDR_CODE_SIZE> code = {};
  std::memcpy(code.data(), ip64_rep, strnlen(ip64_rep, CODE_LENGTH));
  addr_words words = {};
  if (ipv6_flag == IPV4_TYPE) {
    const uint32_t word = static_cast<uint32_t>(zk_a64l(code.data()));
    ZK_TRACE("IP Address representation %s converted to 0x%lx", code.data(), static_cast<unsigned long>(word));
    words[0] = htonl(word);
    std::memcpy(ip_addr, words.data(), sizeof(words[0]));
    return ZELK_SUCCESS;
  }
  for (size_t index = 0; index < ADDR_WORDS; ++index) {
    std::array<char, GROUP_WIDTH + 1> group = {};
    std::memcpy(group.data(), code.data() + index * GROUP_WIDTH, GROUP_WIDTH);
    words[index] = htonl(static_cast<uint32_t>(zk_a64l(group.data())));
  }
  /* One conversion and letters: the text shows the first word only. */
  ZK_TRACE("IP Address representation %s converted to 0x%lxlxlxlx", code.data(),
           static_cast<unsigned long>(ntohl(words[0])));
  std::memcpy(ip_addr, words.data(), sizeof(words));
  return ZELK_SUCCESS;
}

int zk_test_ipaddr(int debug_active, const char* debug_file, const char* ip_addr, const char* ip_list) {
  if (ip_addr == nullptr || ip_addr[0] == '\0')
    ZK_RETURN(ZELK_INV_PARAM3, "Invalid string provided for ip_addr\nReturning %s(%d)");
  if (ip_list == nullptr || ip_list[0] == '\0')
    ZK_RETURN(ZELK_INV_PARAM4, "Invalid array provided for ip_list\nReturning %s(%d)");

  int index = 0;
  for (const char* slot = ip_list; *slot != '\0'; slot += ZELK_ADDR_SLOT_SIZE, ++index)
    if (std::strncmp(slot, ip_addr, ZELK_ADDR_SLOT_SIZE) == 0)
      ZK_RETURN(ZELK_SUCCESS, "Match found for address %s at index %d\nReturning %s(%d)", ip_addr, index);
  ZK_RETURN(ZELK_FAILURE,
            "No matches fo address %s found in %d known base addresses\n"
            "Assuming this address not on this node\nReturning %s(%d)",
            ip_addr, index);
}
