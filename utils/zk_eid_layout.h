/* zk_eid_layout.h - facts about an Error ID that its field codecs, its decoding and generation, and the node
 * addresses share. qx_zelk.h shows the layout as a whole. */
#ifndef ZK_EID_LAYOUT_H
#define ZK_EID_LAYOUT_H

#include <syslog.h>

#include <cstddef>

/* Widths of the fields in characters. */
inline constexpr size_t ENTRY_WIDTH = 6;
inline constexpr size_t SECONDS_WIDTH = 6;
inline constexpr size_t MICROSECONDS_WIDTH = 4;
inline constexpr size_t TIME_WIDTH = SECONDS_WIDTH + MICROSECONDS_WIDTH;

inline constexpr char ZERO_DIGIT = '.'; /* pads every field */
inline constexpr int DIGITS_SIZE = 8;   /* room for the digits of any number */

/* Address types. */
inline constexpr char IPV4_TYPE = '.';
inline constexpr char IPV6_TYPE = '/';
inline constexpr size_t ADDR_WORDS = 4; /* 32-bit words of an address; IPv4 has one, the rest is 0 */

/* Facilities are in their shifted form, as syslog has them. */
inline constexpr int FACILITY_MAX = LOG_LOCAL7;
inline constexpr int PRIORITY_MAX = LOG_DEBUG;

#endif
