/* SPDX-License-Identifier: MIT */
/* unit.cpp - asks systemd about a unit over the system bus. */
#include "unit.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

static constexpr char DESTINATION[] = "org.freedesktop.systemd1";
static constexpr char UNIT[] = "org.freedesktop.systemd1.Unit";
static constexpr char SERVICE[] = "org.freedesktop.systemd1.Service";

/* A unit on the bus. */
struct bus_object_t {
  sd_bus* bus;
  std::string path;
};

/* ---- Properties; one that cannot be had is empty or 0 ------------------------------------------------------------ */

static std::string text_of(const bus_object_t& object, const char* interface, const char* name) {
  char* value = nullptr;
  std::string text;
  if (sd_bus_get_property_string(object.bus, DESTINATION, object.path.c_str(), interface, name, nullptr, &value) >= 0)
    text = value;
  std::free(value);
  return text;
}

template <typename Number>
static Number number_of(const bus_object_t& object, const char* interface, const char* name, char type) {
  Number number = 0;
  sd_bus_get_property_trivial(object.bus, DESTINATION, object.path.c_str(), interface, name, nullptr, type, &number);
  return number;
}

static int64_t time_of(const bus_object_t& object, const char* interface, const char* name) {
  return static_cast<int64_t>(number_of<uint64_t>(object, interface, name, 't'));
}

static void append_names(const bus_object_t& object, const char* name, std::vector<std::string>* names) {
  char** values = nullptr;
  if (sd_bus_get_property_strv(object.bus, DESTINATION, object.path.c_str(), UNIT, name, nullptr, &values) < 0) return;
  for (char** value = values; value != nullptr && *value != nullptr; ++value) {
    names->push_back(*value);
    std::free(*value);
  }
  std::free(values);
}

static std::string invocation_of(const bus_object_t& object) {
  sd_bus_message* reply = nullptr;
  std::string digits;
  if (sd_bus_get_property(object.bus, DESTINATION, object.path.c_str(), UNIT, "InvocationID", nullptr, &reply, "ay") >=
      0) {
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(reply, 'y', &bytes, &size) >= 0)
      for (size_t i = 0; i < size; ++i) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<const unsigned char*>(bytes)[i]);
        digits += two;
      }
  }
  sd_bus_message_unref(reply);
  return digits;
}

/* Whether a process that ended so is what the result of its unit tells of. */
static bool is_end_of(const std::string& result, int32_t code, int32_t status) {
  if (result == "exit-code") return code == CLD_EXITED && status != 0;
  if (result == "signal") return code == CLD_KILLED;
  return result == "core-dump" && code == CLD_DUMPED;
}

/* Notes the processes of the commands of the property `name`, such as "ExecStartPre". Where the last of those that ended as
 * the unit's result says is to tell how, it does. */
static void read_commands(const bus_object_t& object, const char* name, bool is_to_tell, unit_t* unit) {
  sd_bus_message* reply = nullptr;
  if (sd_bus_get_property(object.bus, DESTINATION, object.path.c_str(), SERVICE, name, nullptr, &reply,
                          "a(sasbttttuii)") >= 0 &&
      sd_bus_message_enter_container(reply, 'a', "(sasbttttuii)") >= 0) {
    while (sd_bus_message_enter_container(reply, 'r', "sasbttttuii") > 0) {
      int is_ignored = 0; /* "-" before the command */
      uint32_t process_id = 0;
      int32_t code = 0, status = 0;
      sd_bus_message_skip(reply, "sas");
      sd_bus_message_read(reply, "b", &is_ignored);
      sd_bus_message_skip(reply, "tttt");
      sd_bus_message_read(reply, "uii", &process_id, &code, &status);
      sd_bus_message_exit_container(reply);
      if (process_id > 1) unit->processes.insert(static_cast<int32_t>(process_id));
      if (!is_to_tell || is_ignored != 0 || !is_end_of(unit->result, code, status)) continue;
      unit->code = code;
      unit->status = status;
    }
  }
  sd_bus_message_unref(reply);
}

/* ---- The unit ------------------------------------------------------------------------------------------------------ */

static std::string path_of(const std::string& name) {
  char* path = nullptr;
  sd_bus_path_encode("/org/freedesktop/systemd1/unit", name.c_str(), &path);
  std::string text = path != nullptr ? path : "";
  std::free(path);
  return text;
}

static void read_needs(const bus_object_t& object, unit_t* unit) {
  for (const char* property : {"Requires", "Requisite", "BindsTo"}) append_names(object, property, &unit->needs);
  for (const std::string& need : unit->needs) {
    const bus_object_t needed = {object.bus, path_of(need)};
    const std::string state = text_of(needed, UNIT, "ActiveState");
    const bool is_failed = state == "failed";
    if (is_failed || (unit->failed_need.empty() && state == "inactive")) unit->failed_need = need;
    if (is_failed) break;
  }
  append_names(object, "PartOf", &unit->needs);
}

/* Whether the property `name`, statuses and signals, has that which the main process ended with. */
static bool has_end_of_main(const bus_object_t& object, const char* name, const unit_t& unit) {
  sd_bus_message* reply = nullptr;
  bool has_end = false;
  if (sd_bus_get_property(object.bus, DESTINATION, object.path.c_str(), SERVICE, name, nullptr, &reply, "(aiai)") >=
          0 &&
      sd_bus_message_enter_container(reply, 'r', "aiai") >= 0) {
    for (const bool is_of_exits : {true, false}) {
      const void* numbers = nullptr;
      size_t size = 0;
      if (sd_bus_message_read_array(reply, 'i', &numbers, &size) < 0) break;
      const std::span ends(static_cast<const int32_t*>(numbers), size / sizeof(int32_t));
      if (is_of_exits == (unit.code == CLD_EXITED)) has_end = std::ranges::find(ends, unit.status) != ends.end();
    }
  }
  sd_bus_message_unref(reply);
  return has_end;
}

/* Whether a failure with that result is one after which "Restart=`policy`" starts the service again. */
static bool restarts_after(const std::string& policy, const std::string& result) {
  const bool is_signal = result == "signal" || result == "core-dump";
  if (policy == "always" || policy == "on-failure") return true;
  if (policy == "on-abnormal") return is_signal || result == "timeout" || result == "watchdog";
  if (policy == "on-abort") return is_signal;
  return policy == "on-watchdog" && result == "watchdog";
}

/* Whether as many starts as are allowed fell into the interval of the start limit, so that systemd gave up. Restarts are counted
 * since a start by hand: they may be weeks old, but the last start before it gives up is no older than the interval. */
static bool is_limit_hit(const bus_object_t& object, const unit_t& unit) {
  const uint32_t burst = number_of<uint32_t>(object, UNIT, "StartLimitBurst", 'u');
  const uint64_t interval = number_of<uint64_t>(object, UNIT, "StartLimitIntervalUSec", 't');
  const uint64_t started = number_of<uint64_t>(object, UNIT, "InactiveExitTimestampMonotonic", 't');
  const uint64_t failed = number_of<uint64_t>(object, UNIT, "StateChangeTimestampMonotonic", 't');
  return burst > 0 && unit.restarts >= burst && failed - started <= interval;
}

std::string read_unit(const std::string& name, unit_t* unit) {
  *unit = {};
  unit->name = name;
  bus_object_t object = {nullptr, path_of(name)};
  const int opened = sd_bus_open_system(&object.bus);
  if (opened < 0) return std::string("systemd cannot be asked: ") + std::strerror(-opened);
  const std::string state = text_of(object, UNIT, "LoadState");
  unit->result = text_of(object, SERVICE, "Result");
  /* It may have failed before its file was taken away. */
  if (state.empty() || (state == "not-found" && text_of(object, UNIT, "ActiveState") != "failed")) {
    sd_bus_flush_close_unref(object.bus);
    return "systemd knows no such unit";
  }
  unit->code = number_of<int32_t>(object, SERVICE, "ExecMainCode", 'i');
  unit->status = number_of<int32_t>(object, SERVICE, "ExecMainStatus", 'i');
  unit->process_id = static_cast<int32_t>(number_of<uint32_t>(object, SERVICE, "ExecMainPID", 'u'));
  unit->restarts = number_of<uint32_t>(object, SERVICE, "NRestarts", 'u');
  unit->invocation = invocation_of(object);
  unit->started = time_of(object, UNIT, "InactiveExitTimestamp");
  const int64_t ended = time_of(object, SERVICE, "ExecMainExitTimestampMonotonic");
  const int64_t began = time_of(object, SERVICE, "ExecMainStartTimestampMonotonic");
  unit->run_time = ended > began ? ended - began : 0;
  const bool is_prevented = has_end_of_main(object, "RestartPreventExitStatus", *unit);
  /* Where the main process did not fail, the first command that did is the last in this order. */
  const bool is_main = is_end_of(unit->result, unit->code, unit->status);
  for (const char* property : {"ExecStopPost", "ExecStop", "ExecStartPost", "ExecStartPre", "ExecCondition"})
    read_commands(object, property, !is_main, unit);
  for (const char* property : {"ExecReload", "ExecStart"}) read_commands(object, property, false, unit);
  /* systemd keeps the result of the last start when it gives up restarting. */
  const bool is_to_restart = restarts_after(text_of(object, SERVICE, "Restart"), unit->result);
  if (is_to_restart && !is_prevented && is_limit_hit(object, *unit)) unit->result = "start-limit-hit";
  read_needs(object, unit);
  sd_bus_flush_close_unref(object.bus);
  return "";
}

static std::string signal_name(int32_t number) {
  const char* name = sigabbrev_np(number);
  return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(number);
}

std::string result_in_words(const unit_t& unit) {
  static constexpr struct {
    const char* result;
    const char* words;
  } WORDS[] = {{"oom-kill", "out of memory"}, {"start-limit-hit", "start limit hit"}};
  for (const auto& row : WORDS)
    if (unit.result == row.result) return row.words;
  if (unit.result == "exit-code") return "exit status " + std::to_string(unit.status);
  if (unit.result == "signal") return "killed by " + signal_name(unit.status);
  if (unit.result == "core-dump") return "core dump by " + signal_name(unit.status);
  if (unit.result == "success" && !unit.failed_need.empty()) return "a unit it needs failed: " + unit.failed_need;
  return unit.result.empty() ? "unknown result" : unit.result;
}
