/* SPDX-License-Identifier: MIT */
/* zk_eid.cpp - whole Error IDs: decoding and generation. Version 2 adds syslog messages to version 1. */
#include <arpa/inet.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>

#include "zk_eid_layout.h"
#include "zk_trace.h"

/* ---- Decoding ------------------------------------------------------------------------------------------ */

/* Where the caller of a decoding routine wants the values, in the order of zk_decode_eid_2's parameters. */
struct eid_outputs_t {
  int newest_version; /* that the routine decodes; with 1 there is one stack file, no facility and no priority */
  int* local_fid;
  int* version_id;
  int* location_mask;
  char* stack_files;
  int stack_file_limit;
  unsigned int* err_templ_label;
  int* bsd_facility;
  int* bsd_priority;
  void* timestamp; /* a struct timeval */
  void* ip_addr;
  int* ipv6_flag;
};

static int check_arguments(const zk_trace_t& trace, const char* zelkid, const eid_outputs_t& out) {
  const struct {
    const void* pointer;
    const char* name;
    int result;
  } required[] = {
      {out.version_id, "version_id", ZELK_INV_PARAM3},
      {out.location_mask, "location_mask", ZELK_INV_PARAM4},
      {out.stack_files, out.newest_version > 1 ? "stack_file_list" : "stack_file", ZELK_INV_PARAM5},
      {out.err_templ_label, "err_templ_label", ZELK_INV_PARAM6},
      {out.timestamp, "timestamp", ZELK_INV_PARAM7},
      {out.ip_addr, "ip_addr", ZELK_INV_PARAM8},
      {out.ipv6_flag, "ipv6_flag", ZELK_INV_PARAM9},
  };
  if (zelkid == nullptr || zelkid[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM2, "Detected invalid ZELK Error ID\nReturning %s(%d) to the caller\n");
  if (strnlen(zelkid, ZELK_EID_SIZE) != ZELK_EID_LENGTH)
    return zk_failed(trace, ZELK_INV_PARAM2,
                     "ZELK Error ID \"%s\"is not correct size\nReturning %s(%d) to the caller\n", zelkid);
  for (const auto& output : required)
    if (output.pointer == nullptr)
      return zk_failed(trace, output.result, "Detected invalid pointer for %s\nReturning %s(%d) to the caller\n",
                       output.name);
  if (out.newest_version > 1 && (out.bsd_facility == nullptr || out.bsd_priority == nullptr))
    return zk_failed(trace, ZELK_INV_PARAMCOMBO,
                     "Detected invalid pointer for bsd_priority (0x%x) or bsd_facility (0x%x)\n"
                     "Returning %s(%d) to the caller\n",
                     zk_trace_pointer(out.bsd_priority), zk_trace_pointer(out.bsd_facility));
  return ZELK_SUCCESS;
}

/* Decodes the address, also into `words`, and tells whether it is one of this node's. */
static int decode_address(const zk_trace_t& trace, const zk_eid_parts_t& parts, const eid_outputs_t& out,
                          zk_addr_words_t* words) {
  const char type = parts.address[ZK_ADDR_CODE_WIDTH];
  const int result = zk_conv_ipaddr(trace.active, trace.file, parts.address, type, words->data());
  if (result != ZELK_SUCCESS) return result;

  const bool is_ipv4 = type == ZK_IPV4_TYPE;
  std::array<char, ZELK_ADDR_SLOT_SIZE> address = {};
  std::memcpy(out.ip_addr, words->data(), is_ipv4 ? sizeof(struct in_addr) : sizeof(struct in6_addr));
  inet_ntop(is_ipv4 ? AF_INET : AF_INET6, words->data(), address.data(), address.size());
  *out.ipv6_flag = is_ipv4 ? 0 : 1;

  /* A node that cannot list its addresses has none: the ID then counts as another node's. */
  std::array<char, ZELK_ADDR_LIST_SLOTS* ZELK_ADDR_SLOT_SIZE> node_addresses = {};
  int count = 0;
  zk_obtain_ipaddrs(trace.active, trace.file, node_addresses.data(), 0, &count);
  const bool is_local =
      count != 0 && zk_test_ipaddr(trace.active, trace.file, address.data(), node_addresses.data()) == ZELK_SUCCESS;
  *out.local_fid = is_local ? 1 : 0;
  return ZELK_SUCCESS;
}

static int decode_entry(const zk_trace_t& trace, const char* entry, const eid_outputs_t& out) {
  const int location = *out.location_mask;
  if (location == ZELK_LOCATION_STACK && *out.local_fid == 0) return ZELK_SUCCESS; /* the file lies on another node */
  if (location == ZELK_LOCATION_STACK)
    return zk_conv_base_64_inode(trace.active, trace.file, ZELK_STACK_DIR, entry, out.stack_files,
                                 out.stack_file_limit);
  if (location == ZELK_LOCATION_TEMPLATE)
    return zk_conv_base_64_templ(trace.active, trace.file, entry, out.err_templ_label);
  if (out.newest_version > 1)
    return zk_conv_base_64_selector(trace.active, trace.file, entry, out.bsd_facility, out.bsd_priority);
  return zk_failed(trace, ZELK_FAILURE,
                   "Unknown location type 0x%x returned from zk_conv_base_64_hdr\nReturning %s(%d) to caller\n",
                   static_cast<unsigned int>(location));
}

static void trace_decoded(const zk_trace_t& trace, const char* zelkid, const eid_outputs_t& out,
                          const zk_addr_words_t& words, char address_type, int result) {
  std::array<char, 32> time = {};
  std::array<char, 64> address = {};
  std::array<char, ZELK_FILE_SLOT_SIZE + 128> entry = {};
  const time_t seconds = static_cast<const struct timeval*>(out.timestamp)->tv_sec;
  ctime_r(&seconds, time.data());
  std::snprintf(address.data(), address.size(), "0x%x%x%x%x (%s type)", ntohl(words[0]), ntohl(words[1]),
                ntohl(words[2]), ntohl(words[3]), address_type == ZK_IPV4_TYPE ? "IPv4" : "IPv6");
  const bool has_file = out.stack_files[0] != '\0';
  if (out.newest_version > 1)
    std::snprintf(entry.data(), entry.size(), "First Stack File %s, Template ID 0x%x Syslog Facility %d Priority %d",
                  has_file ? out.stack_files : "(none)", *out.err_templ_label, LOG_FAC(*out.bsd_facility),
                  *out.bsd_priority);
  else
    std::snprintf(entry.data(), entry.size(), "Stack File %s, Template ID %d(0x%x)",
                  has_file ? out.stack_files : "none", static_cast<int>(*out.err_templ_label), *out.err_templ_label);
  zk_trace(trace,
           "ZELK Error ID \"%s\" decodes into:\nVersion %d, Location 0x%x\n%s\nTimestamp %s\nIP Address %s\n"
           "Return code %d",
           zelkid, *out.version_id, static_cast<unsigned int>(*out.location_mask), entry.data(), time.data(),
           address.data(), result);
}

static int decode(const zk_trace_t& trace, const char* zelkid, const eid_outputs_t& out) {
  int result = check_arguments(trace, zelkid, out);
  if (result != ZELK_SUCCESS) return result;

  zk_eid_parts_t parts;
  std::memcpy(&parts, zelkid, sizeof parts);
  const std::array<char, 2> header = {parts.header, '\0'};
  result = zk_conv_base_64_hdr(trace.active, trace.file, header.data(), out.version_id, out.location_mask);
  if (result != ZELK_SUCCESS) return result;
  if (*out.version_id > out.newest_version)
    return zk_failed(trace, ZELK_UNSUPPORTED,
                     "ZELK Error ID is an unsupported version: 0x%x\nReturning %s(%d) to the caller\n",
                     static_cast<unsigned int>(*out.version_id));
  result = zk_conv_base_64_time(trace.active, trace.file, parts.time, static_cast<struct timeval*>(out.timestamp));
  if (result != ZELK_SUCCESS) return result;
  zk_addr_words_t words = {};
  result = decode_address(trace, parts, out, &words);
  if (result != ZELK_SUCCESS) return result;

  result = decode_entry(trace, parts.entry, out);
  const bool has_selector = *out.location_mask == ZELK_LOCATION_SYSLOG && out.newest_version > 1;
  if (result != ZELK_SUCCESS && result != ZELK_FILE_MISSING && !has_selector) return result;
  if (trace.active == 1) trace_decoded(trace, zelkid, out, words, parts.address[ZK_ADDR_CODE_WIDTH], result);
  return result;
}

int zk_decode_eid_2(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                    int* location_mask, char* stack_file_list, int stack_file_limit, unsigned int* err_templ_label,
                    int* bsd_facility, int* bsd_priority, void* timestamp, void* ip_addr, int* ipv6_flag) {
  return decode({debug_active, debug_file, __func__}, zelkid,
                {2, local_fid, version_id, location_mask, stack_file_list, stack_file_limit, err_templ_label,
                 bsd_facility, bsd_priority, timestamp, ip_addr, ipv6_flag});
}

int zk_decode_eid(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                  int* location_mask, char* stack_file, unsigned int* err_templ_label, void* timestamp, void* ip_addr,
                  int* ipv6_flag) {
  return decode({debug_active, debug_file, __func__}, zelkid,
                {1, local_fid, version_id, location_mask, stack_file, 1, err_templ_label, nullptr, nullptr, timestamp,
                 ip_addr, ipv6_flag});
}

/* ---- Generation ---------------------------------------------------------------------------------------- */

/* Where an incident is recorded, and so what its Error ID names. Of several places the last counts. */
struct eid_place_t {
  int version;
  const char* stack_file;       /* or null */
  unsigned int err_templ_label; /* or 0 */
  int bsd_facility;             /* or out of range */
  int bsd_priority;
};

static bool has_facility(const eid_place_t& place) {
  return place.bsd_facility >= 0 && place.bsd_facility <= ZK_FACILITY_MAX;
}

/* Finds the node's address in the environment. */
static int read_address(const zk_trace_t& trace, char* field) {
  static constexpr char VARIABLE[] = "ZELKADDR";
  const char* address = secure_getenv(VARIABLE);
  if (address == nullptr || address[0] == '\0')
    return zk_failed(trace, ZELK_FAILURE, "Cannot find %s data in environment\nReturning %s(%d) to the caller",
                     VARIABLE);
  if (strnlen(address, ZK_ADDR_WIDTH + 1) != ZK_ADDR_WIDTH)
    return zk_failed(trace, ZELK_FAILURE,
                     "Value stored in environment for %s does not appear to be valie: %s\n"
                     "Returning %s(%d) to the caller",
                     VARIABLE, address);
  std::memcpy(field, address, ZK_ADDR_WIDTH);
  return ZELK_SUCCESS;
}

/* Writes header and entry for each place that is given. */
static int write_place(const zk_trace_t& trace, const eid_place_t& place, zk_eid_parts_t* parts) {
  if (place.stack_file != nullptr) {
    zk_write_header(trace, place.version, ZELK_LOCATION_STACK, parts);
    const int result = zk_get_base_64_inode(trace.active, trace.file, place.stack_file, parts->entry);
    if (result == ZELK_INV_PARAM3)
      return zk_failed(trace, ZELK_INV_PARAM3,
                       "ZELK Error Stack File %s does not exist - caller must be repaired\n"
                       "Returning %s(%d) to the caller\n",
                       place.stack_file);
    if (result != ZELK_SUCCESS) return ZELK_FAILURE;
  }
  if (place.err_templ_label != 0) {
    zk_write_header(trace, place.version, ZELK_LOCATION_TEMPLATE, parts);
    zk_get_base_64_templ(trace.active, trace.file, place.err_templ_label, parts->entry);
  }
  if (has_facility(place)) {
    zk_write_header(trace, place.version, ZELK_LOCATION_SYSLOG, parts);
    const int result =
        zk_get_base_64_selector(trace.active, trace.file, place.bsd_facility, place.bsd_priority, parts->entry);
    if (result != ZELK_SUCCESS) return ZELK_FAILURE;
  }
  return ZELK_SUCCESS;
}

static int generate(const zk_trace_t& trace, const eid_place_t& place, long* timestamp, char* zelkid) {
  if (place.stack_file == nullptr && place.err_templ_label == 0 && !has_facility(place)) return ZELK_INV_PARAMCOMBO;

  zk_eid_parts_t parts;
  long seconds = 0;
  if (zk_get_base_64_time(trace.active, trace.file, parts.time, &seconds) != ZELK_SUCCESS) return ZELK_FAILURE;
  int result = read_address(trace, parts.address);
  if (result == ZELK_SUCCESS) result = write_place(trace, place, &parts);
  if (result != ZELK_SUCCESS) return result;

  zk_join_eid(parts, zelkid);
  *timestamp = seconds;
  return zk_succeeded(trace, "Created ZELK Error ID %s\nReturning %s(%d) to caller\n", zelkid);
}

void zk_write_header(const zk_trace_t& trace, int version, int location, zk_eid_parts_t* parts) {
  std::array<char, 2> header = {};
  zk_get_base_64_hdr(trace.active, trace.file, version, location, header.data());
  parts->header = header[0];
}

void zk_join_eid(const zk_eid_parts_t& parts, char* zelkid) {
  std::memcpy(zelkid, &parts, sizeof parts);
  zelkid[sizeof parts] = '\0';
}

int zk_generate_eid_2(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                      int bsd_facility, int bsd_priority, long* timestamp, char* zelkid) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  /* By its number, 0 to 23, a facility excludes a stack file; in its shifted form, from 24 up, it takes the
   * place of one. */
  const bool has_other = err_templ_label != 0 || (bsd_facility >= 0 && bsd_facility <= LOG_FAC(ZK_FACILITY_MAX));
  if (stack_file != nullptr && has_other)
    return zk_failed(trace, ZELK_INV_PARAMCOMBO,
                     "Caller requested a zk_eid_t be generated for both a stack and either an error template or  "
                     "Syslog messges\nStack file is %s\ntemplate is %d\nSyslog facility is %d\n"
                     "Returning %s(%d) to caller\n",
                     stack_file, static_cast<int>(err_templ_label), LOG_FAC(bsd_priority));
  return generate(trace, {2, stack_file, err_templ_label, bsd_facility, bsd_priority}, timestamp, zelkid);
}

int zk_generate_eid(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                    long* timestamp, char* zelkid) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (stack_file != nullptr && err_templ_label != 0)
    return zk_failed(trace, ZELK_INV_PARAMCOMBO,
                     "Caller requested a zk_eid_t be generated for both a stack and a error template\n"
                     "Stack file is %s\ntemplate is %d\nReturning %s(%d) to caller\n",
                     stack_file, static_cast<int>(err_templ_label));
  return generate(trace, {1, stack_file, err_templ_label, -1, 0}, timestamp, zelkid);
}
