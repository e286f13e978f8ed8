/* zk_eid.cpp - whole Error IDs: decoding and generation, each for version 1 and for version 2, which knows
 * syslog messages too. What the versions share are the steps above their routines; what differs stands in the
 * routines. */
#include <arpa/inet.h>
#include <syslog.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "qx_zelk.h"
#include "zk_eid_layout.h"
#include "zk_trace.h"

/* The parts of an Error ID in their order, each with a terminator. */
struct eid_parts {
  std::array<char, 2> header;
  std::array<char, ENTRY_WIDTH + 1> entry;
  std::array<char, TIME_WIDTH + 1> time;
  std::array<char, ZELK_ADDR_CODE_SIZE> address;
  char address_type;
};
static_assert(sizeof(eid_parts) - 4 == ZELK_EID_LENGTH, "the parts, without their terminators, are the Error ID");

constexpr size_t IPV4_SIZE = 4;
constexpr size_t ADDR_SIZE = ADDR_WORDS * sizeof(uint32_t);

constexpr const char* ADDR_VARIABLE = "ZELKADDR";

/* ---- Decoding ------------------------------------------------------------------------------------------ */

/* An output that must not be null. */
struct eid_output {
  const void* pointer;
  const char* name;
  int result;
};

/* Where and when an incident was recorded, as far as the final trace shows it. */
struct eid_origin {
  std::array<uint32_t, ADDR_WORDS> address; /* in network byte order, IPv4 in the first word */
  const char* address_type;
};

static int check_arguments(int debug_active, const char* debug_file, const char* routine, const char* zelkid,
                           std::span<const eid_output> outputs) {
  if (zelkid == nullptr || zelkid[0] == '\0') {
    ZK_RETURN_AS(routine, ZELK_INV_PARAM2, "Detected invalid ZELK Error ID\nReturning %s(%d) to the caller\n");
  }
  if (strnlen(zelkid, ZELK_EID_SIZE) != ZELK_EID_LENGTH) {
    ZK_RETURN_AS(routine, ZELK_INV_PARAM2, "ZELK Error ID \"%s\"is not correct size\nReturning %s(%d) to the caller\n",
                 zelkid);
  }
  for (const eid_output& output : outputs) {
    if (output.pointer != nullptr) continue;
    ZK_RETURN_AS(routine, output.result, "Detected invalid pointer for %s\nReturning %s(%d) to the caller\n",
                 output.name);
  }
  return ZELK_SUCCESS;
}

template <size_t SIZE>
static void take_part(const char** at, std::array<char, SIZE>* part) {
  std::memcpy(part->data(), *at, SIZE - 1);
  *at += SIZE - 1;
}

static eid_parts take_parts(const char* zelkid) {
  eid_parts parts = {};
  take_part(&zelkid, &parts.header);
  take_part(&zelkid, &parts.entry);
  take_part(&zelkid, &parts.time);
  take_part(&zelkid, &parts.address);
  parts.address_type = *zelkid;
  return parts;
}

/* Decodes time stamp and address, and tells whether the address is one of this node's. */
static int decode_origin(int debug_active, const char* debug_file, const eid_parts& parts, eid_origin* origin,
                         int* local_fid, struct timeval* timestamp, void* ip_addr, int* ipv6_flag) {
  int result = zk_conv_base_64_time(debug_active, debug_file, parts.time.data(), timestamp);
  if (result != ZELK_SUCCESS) return result;
  *origin = {};
  result = zk_conv_ipaddr(debug_active, debug_file, parts.address.data(), parts.address_type, origin->address.data());
  if (result != ZELK_SUCCESS) return result;

  const bool is_ipv4 = parts.address_type == IPV4_TYPE;
  std::array<char, ZELK_ADDR_SLOT_SIZE> address_text = {};
  std::memcpy(ip_addr, origin->address.data(), is_ipv4 ? IPV4_SIZE : ADDR_SIZE);
  inet_ntop(is_ipv4 ? AF_INET : AF_INET6, origin->address.data(), address_text.data(), address_text.size());
  *ipv6_flag = is_ipv4 ? 0 : 1;
  origin->address_type = is_ipv4 ? "IPv4" : "IPv6";

  /* A node that cannot list its addresses has none: the ID then counts as another node's. */
  *local_fid = 0;
  std::array<char, ZELK_ADDR_LIST_SLOTS* ZELK_ADDR_SLOT_SIZE> node_addresses = {};
  int node_address_count = 0;
  zk_obtain_ipaddrs(debug_active, debug_file, node_addresses.data(), 0, &node_address_count);
  if (node_address_count != 0 &&
      zk_test_ipaddr(debug_active, debug_file, address_text.data(), node_addresses.data()) == ZELK_SUCCESS)
    *local_fid = 1;
  return ZELK_SUCCESS;
}

/* Decodes the entry at a location that both versions know. */
static int decode_entry(int debug_active, const char* debug_file, const char* routine, const char* entry, int location,
                        int local, char* stack_files, int stack_file_limit, unsigned int* err_templ_label) {
  switch (location) {
    case ZELK_LOCATION_STACK:
      if (local == 0) return ZELK_SUCCESS; /* the file lies on the node that made the ID */
      return zk_conv_base_64_inode(debug_active, debug_file, ZELK_STACK_DIR, entry, stack_files, stack_file_limit);
    case ZELK_LOCATION_TEMPLATE:
      return zk_conv_base_64_templ(debug_active, debug_file, entry, err_templ_label);
    default:
      ZK_RETURN_AS(routine, ZELK_FAILURE,
                   "Unknown location type 0x%x returned from zk_conv_base_64_hdr\n"
                   "Returning %s(%d) to caller\n",
                   static_cast<unsigned int>(location));
  }
}

/* What stands in the final trace for a time stamp, and for a word of an address. */
using time_text = std::array<char, 32>;
static const char* trace_time(const struct timeval* timestamp, time_text* text) {
  const time_t seconds = timestamp->tv_sec;
  return ctime_r(&seconds, text->data()) != nullptr ? text->data() : "";
}
static unsigned long trace_word(const eid_origin& origin, size_t index) {
  return ntohl(origin.address[index]);
}

int zk_decode_eid_2(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                    int* location_mask, char* stack_file_list, int stack_file_limit, unsigned int* err_templ_label,
                    int* bsd_facility, int* bsd_priority, void* timestamp, void* ip_addr, int* ipv6_flag) {
  const std::array<eid_output, 7> outputs = {{
      {version_id, "version_id", ZELK_INV_PARAM3},
      {location_mask, "location_mask", ZELK_INV_PARAM4},
      {stack_file_list, "stack_file_list", ZELK_INV_PARAM5},
      {err_templ_label, "err_templ_label", ZELK_INV_PARAM6},
      {timestamp, "timestamp", ZELK_INV_PARAM7},
      {ip_addr, "ip_addr", ZELK_INV_PARAM8},
      {ipv6_flag, "ipv6_flag", ZELK_INV_PARAM9},
  }};
  int result = check_arguments(debug_active, debug_file, __func__, zelkid, outputs);
  if (result != ZELK_SUCCESS) return result;
  if (bsd_facility == nullptr || bsd_priority == nullptr)
    ZK_RETURN(ZELK_INV_PARAMCOMBO,
              "Detected invalid pointer for bsd_priority (0x%x) or bsd_facility (0x%x)\n"
              "Returning %s(%d) to the caller\n",
              zk_trace_pointer(bsd_priority), zk_trace_pointer(bsd_facility));

  const eid_parts parts = take_parts(zelkid);
  result = zk_conv_base_64_hdr(debug_active, debug_file, parts.header.data(), version_id, location_mask);
  if (result != ZELK_SUCCESS) return result;
  if (*version_id < 1 || *version_id > 2)
    ZK_RETURN(ZELK_UNSUPPORTED, "Unsupported version %d detected in ZELK ID \"%s\"\nReturning %s(%d)", *version_id,
              zelkid);

  struct timeval* time = static_cast<struct timeval*>(timestamp);
  eid_origin origin;
  result = decode_origin(debug_active, debug_file, parts, &origin, local_fid, time, ip_addr, ipv6_flag);
  if (result != ZELK_SUCCESS) return result;

  if (*location_mask == ZELK_LOCATION_SYSLOG) {
    result = zk_conv_base_64_selector(debug_active, debug_file, parts.entry.data(), bsd_facility, bsd_priority);
  } else {
    result = decode_entry(debug_active, debug_file, __func__, parts.entry.data(), *location_mask, *local_fid,
                          stack_file_list, stack_file_limit, err_templ_label);
    if (result != ZELK_SUCCESS && result != ZELK_FILE_MISSING) return result;
  }

  time_text text = {};
  ZK_TRACE(
      "ZELK Error ID \"%s\" decodes into:\nVersion %d, Location 0x%x\n"
      "First Stack File %s, Template ID 0x%x Syslog Facility %d Priority %d\nTimestamp %s\n"
      "IP Address 0x%lx%lx%lx%lx (%s type)\nReturn code %d",
      zelkid, *version_id, static_cast<unsigned int>(*location_mask),
      stack_file_list[0] != '\0' ? stack_file_list : "(none)", *err_templ_label, LOG_FAC(*bsd_facility), *bsd_priority,
      trace_time(time, &text), trace_word(origin, 0), trace_word(origin, 1), trace_word(origin, 2),
      trace_word(origin, 3), origin.address_type, result);
  return result;
}

int zk_decode_eid(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                  int* location_mask, char* stack_file, unsigned int* err_templ_label, void* timestamp, void* ip_addr,
                  int* ipv6_flag) {
  const std::array<eid_output, 7> outputs = {{
      {version_id, "version_id", ZELK_INV_PARAM3},
      {location_mask, "location_mask", ZELK_INV_PARAM4},
      {stack_file, "stack_file", ZELK_INV_PARAM5},
      {err_templ_label, "err_templ_label", ZELK_INV_PARAM6},
      {timestamp, "timestamp", ZELK_INV_PARAM7},
      {ip_addr, "ip_addr", ZELK_INV_PARAM8},
      {ipv6_flag, "ipv6_flag", ZELK_INV_PARAM9},
  }};
  int result = check_arguments(debug_active, debug_file, __func__, zelkid, outputs);
  if (result != ZELK_SUCCESS) return result;

  const eid_parts parts = take_parts(zelkid);
  result = zk_conv_base_64_hdr(debug_active, debug_file, parts.header.data(), version_id, location_mask);
  if (result != ZELK_SUCCESS) return result;
  if (*version_id != 1)
    ZK_RETURN(ZELK_UNSUPPORTED, "ZELK Error ID is an unsupported version: 0x%x\nReturning %s(%d) to the caller\n",
              static_cast<unsigned int>(*version_id));

  struct timeval* time = static_cast<struct timeval*>(timestamp);
  eid_origin origin;
  result = decode_origin(debug_active, debug_file, parts, &origin, local_fid, time, ip_addr, ipv6_flag);
  if (result != ZELK_SUCCESS) return result;

  result = decode_entry(debug_active, debug_file, __func__, parts.entry.data(), *location_mask, *local_fid, stack_file,
                        1, err_templ_label);
  if (result != ZELK_SUCCESS && result != ZELK_FILE_MISSING) return result;

  time_text text = {};
  ZK_TRACE(
      "ZELK Error ID \"%s\" decodes into:\nVersion %d, Location 0x%x\n"
      "Stack File %s, Template ID %d(0x%x)\nTimestamp %s\n"
      "IP Address 0x%lx%lx%lx%lx (%s type)\nReturn code %d",
      zelkid, *version_id, static_cast<unsigned int>(*location_mask), stack_file[0] != '\0' ? stack_file : "none",
      static_cast<int>(*err_templ_label), *err_templ_label, trace_time(time, &text), trace_word(origin, 0),
      trace_word(origin, 1), trace_word(origin, 2), trace_word(origin, 3), origin.address_type, result);
  return result;
}

/* ---- Generation ---------------------------------------------------------------------------------------- */

/* Makes the time stamp of the present moment and finds the node's encoded address in the environment. */
static int take_origin(int debug_active, const char* debug_file, const char* routine, eid_parts* parts, long* seconds,
                       const char** address) {
  if (zk_get_base_64_time(debug_active, debug_file, parts->time.data(), seconds) != ZELK_SUCCESS) return ZELK_FAILURE;
  *address = getenv(ADDR_VARIABLE);
  if (*address == nullptr || **address == '\0') {
    ZK_RETURN_AS(routine, ZELK_FAILURE, "Cannot find %s data in environment\nReturning %s(%d) to the caller",
                 ADDR_VARIABLE);
  }
  if (strnlen(*address, ZELK_ADDR_CODE_SIZE + 1) != ZELK_ADDR_CODE_SIZE) { /* the code and its type */
    ZK_RETURN_AS(routine, ZELK_FAILURE,
                 "Value stored in environment for %s does not appear to be valie: %s\n"
                 "Returning %s(%d) to the caller",
                 ADDR_VARIABLE, *address);
  }
  return ZELK_SUCCESS;
}

/* The header for a location; the entry is cleared, for the routine that fills it next. */
static int start_entry(int debug_active, const char* debug_file, int version, int location, eid_parts* parts) {
  parts->entry = {};
  parts->header = {};
  return zk_get_base_64_hdr(debug_active, debug_file, version, location, parts->header.data());
}

static int make_stack_entry(int debug_active, const char* debug_file, const char* routine, int version,
                            const char* stack_file, eid_parts* parts) {
  if (start_entry(debug_active, debug_file, version, ZELK_LOCATION_STACK, parts) != ZELK_SUCCESS) return ZELK_FAILURE;
  const int result = zk_get_base_64_inode(debug_active, debug_file, stack_file, parts->entry.data());
  if (result == ZELK_INV_PARAM3) {
    ZK_RETURN_AS(routine, ZELK_INV_PARAM3,
                 "ZELK Error Stack File %s does not exist - caller must be repaired\n"
                 "Returning %s(%d) to the caller\n",
                 stack_file);
  }
  return result == ZELK_SUCCESS ? ZELK_SUCCESS : ZELK_FAILURE;
}

static int make_template_entry(int debug_active, const char* debug_file, int version, unsigned int err_templ_label,
                               eid_parts* parts) {
  if (start_entry(debug_active, debug_file, version, ZELK_LOCATION_TEMPLATE, parts) != ZELK_SUCCESS ||
      zk_get_base_64_templ(debug_active, debug_file, err_templ_label, parts->entry.data()) != ZELK_SUCCESS)
    return ZELK_FAILURE;
  return ZELK_SUCCESS;
}

static int make_syslog_entry(int debug_active, const char* debug_file, int version, int bsd_facility, int bsd_priority,
                             eid_parts* parts) {
  if (start_entry(debug_active, debug_file, version, ZELK_LOCATION_SYSLOG, parts) != ZELK_SUCCESS ||
      zk_get_base_64_selector(debug_active, debug_file, bsd_facility, bsd_priority, parts->entry.data()) !=
          ZELK_SUCCESS)
    return ZELK_FAILURE;
  return ZELK_SUCCESS;
}

static void compose_eid(const eid_parts& parts, const char* address, char* zelkid) {
  std::memset(zelkid, 0, ZELK_EID_SIZE);
  snprintf(zelkid, ZELK_EID_SIZE, "%1s%6s%10s%25s", parts.header.data(), parts.entry.data(), parts.time.data(),
           address);
}

int zk_generate_eid_2(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                      int bsd_facility, int bsd_priority, long* timestamp, char* zelkid) {
  /* By its number, 0 to 23, a facility excludes a stack file; in its shifted form, from 24 up, it takes the
   * place of one. */
  const bool has_facility = bsd_facility >= 0 && bsd_facility <= FACILITY_MAX;
  if (stack_file != nullptr && (err_templ_label != 0 || (bsd_facility >= 0 && bsd_facility <= LOG_FAC(FACILITY_MAX))))
    ZK_RETURN(ZELK_INV_PARAMCOMBO,
              "Caller requested a zk_eid_t be generated for both a stack and either an error template or  "
              "Syslog messges\nStack file is %s\ntemplate is %d\nSyslog facility is %d\n"
              "Returning %s(%d) to caller\n",
              stack_file, static_cast<int>(err_templ_label), LOG_FAC(bsd_priority));
  if (stack_file == nullptr && err_templ_label == 0 && !has_facility) return ZELK_INV_PARAMCOMBO;

  constexpr int VERSION = 2;
  eid_parts parts = {};
  long seconds = 0;
  const char* address = nullptr;
  int result = take_origin(debug_active, debug_file, __func__, &parts, &seconds, &address);
  if (result == ZELK_SUCCESS && stack_file != nullptr)
    result = make_stack_entry(debug_active, debug_file, __func__, VERSION, stack_file, &parts);
  if (result == ZELK_SUCCESS && err_templ_label != 0)
    result = make_template_entry(debug_active, debug_file, VERSION, err_templ_label, &parts);
  if (result == ZELK_SUCCESS && has_facility)
    result = make_syslog_entry(debug_active, debug_file, VERSION, bsd_facility, bsd_priority, &parts);
  if (result != ZELK_SUCCESS) return result;

  compose_eid(parts, address, zelkid);
  *timestamp = seconds;
  ZK_RETURN(ZELK_SUCCESS, "Created ZELK Error ID %s\nReturning %s(%d) to caller\n", zelkid);
}

int zk_generate_eid(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                    long* timestamp, char* zelkid) {
  if (stack_file != nullptr && err_templ_label != 0)
    ZK_RETURN(ZELK_INV_PARAMCOMBO,
              "Caller requested a zk_eid_t be generated for both a stack and a error template\n"
              "Stack file is %s\ntemplate is %d\nReturning %s(%d) to caller\n",
              stack_file, static_cast<int>(err_templ_label));
  if (stack_file == nullptr && err_templ_label == 0) return ZELK_INV_PARAMCOMBO;

  constexpr int VERSION = 1;
  eid_parts parts = {};
  long seconds = 0;
  const char* address = nullptr;
  int result = take_origin(debug_active, debug_file, __func__, &parts, &seconds, &address);
  if (result == ZELK_SUCCESS && stack_file != nullptr)
    result = make_stack_entry(debug_active, debug_file, __func__, VERSION, stack_file, &parts);
  if (result == ZELK_SUCCESS && err_templ_label != 0)
    result = make_template_entry(debug_active, debug_file, VERSION, err_templ_label, &parts);
  if (result != ZELK_SUCCESS) return result;

  compose_eid(parts, address, zelkid);
  *timestamp = seconds;
  ZK_RETURN(ZELK_SUCCESS, "Created ZELK Error ID %s\nReturning %s(%d) to caller\n", zelkid);
}
