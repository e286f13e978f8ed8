/* SPDX-License-Identifier: MIT */
/* incident.h - an incident as the formats of zkexport take it, from a record or from a line of JSON. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zk_trace.h"

struct zk_decoded_t;

/* An argument of the description, its value as a text. */
struct argument_t {
  std::string type; /* int, long, long_long, double, reserved, string, pointer, unknown */
  std::string value;
  bool is_number; /* the value is a number as JSON has them */
};

/* Bytes of a filled-in description, at most, and of what it is in a line of JSON, where controls are six and bytes that are no
 * UTF-8 come twice: a catalog that a record names can make it as long as it likes. All else in a line takes less than 22 KiB, so
 * the line has less than 63, which is what the frames and files on its way have room for. */
inline constexpr size_t DESCRIPTION_MAX = 32768;
inline constexpr size_t WRITTEN_DESCRIPTION_MAX = 40960;

inline constexpr int64_t NO_ID_TIME = -1;

/* Texts hold the bytes that were recorded. */
struct incident_t {
  std::string stack; /* as the stack was named */
  int64_t offset;    /* of the record in it */
  std::string id;    /* Error ID, at most 42 characters, empty for none */
  std::string cause; /* the same of the incident that caused this one */
  int64_t time;      /* seconds since the Epoch */
  int64_t id_time;   /* microseconds since the Epoch, from the Error ID, or NO_ID_TIME when it cannot be decoded */
  std::string node;  /* address of the node, from the Error ID or whoever collected it; empty when it is not known */
  std::string process;
  int32_t process_id, parent_id, thread_id;
  std::string file, file_version, product;
  int32_t line;
  std::string catalog;
  int32_t message_set, message_number;
  std::string default_message;
  std::vector<argument_t> arguments;
  std::string description; /* filled in */
  bool is_cut;             /* it was too long */
  std::string details;
};

/* The time of an Error ID, in microseconds since the Epoch. Returns false when it cannot be decoded. */
bool time_of_id(std::string_view id, int64_t* id_time);

/* Names a kind of argument, CU_ERROR_ARG_... or any other number. */
const char* argument_type_name(int32_t type);

/* Decodes the fields of a record that zk_open_record has opened, all but `stack` and `offset`.
 * Returns 0; ZELK_REC_CORRUPT. */
int decode_incident(const zk_trace_t& trace, zk_decoded_t* record, incident_t* incident);

/* A number as JSON has it, and recognisable as one with a point. */
std::string digits_of_double(double number);
