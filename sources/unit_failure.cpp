/* SPDX-License-Identifier: MIT */
/* unit_failure.cpp - records the failure of a unit: what zelk-failure@.service runs. */
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "cause.h"
#include "journal.h"
#include "qx_record.h"
#include "repeats.h"
#include "unit.h"
#include "zk_record_image.h"

static constexpr char FOLDER[] = "/var/lib/zelk/failures";
static constexpr char OWN_UNITS[] = "zelk-"; /* what their names begin with */
static constexpr size_t NAME_MAX_BYTES = 255;
static constexpr size_t PROCESS_NAME_MAX = 16; /* what views show */

static int fail(const std::string& what, const std::string& reason) {
  std::fprintf(stderr, "unit-failure: %s: %s\n", what.c_str(), reason.c_str());
  return EXIT_FAILURE;
}

/* Whether it can be the name of a unit, and that of a file. */
static bool is_unit_name(const std::string& name) {
  static constexpr char CHARACTERS[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ:-_.\\@";
  return !name.empty() && name.size() <= NAME_MAX_BYTES && name[0] != '.' &&
         name.find_first_not_of(CHARACTERS) == name.npos && name.find('.') != name.npos;
}

static std::string local_time(int64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  std::tm when = {};
  std::array<char, 64> text = {};
  if (localtime_r(&time, &when) != nullptr) std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &when);
  return text.data();
}

/* The details before the lines of the journal. */
static std::string facts_of(const unit_t& unit, const repeat_t& told) {
  std::string facts = "unit  " + unit.name;
  if (!unit.invocation.empty()) facts += "\ninvocation  " + unit.invocation;
  if (unit.run_time > 0) {
    std::array<char, 32> seconds;
    std::snprintf(seconds.data(), seconds.size(), "%.3f s", static_cast<double>(unit.run_time) / 1e6);
    facts += std::string("\nrun time  ") + seconds.data();
  }
  if (unit.restarts > 0) facts += "\nrestarts  " + std::to_string(unit.restarts);
  if (told.passed_over > 0)
    facts += "\npassed over  " + std::to_string(told.passed_over) + " since " + local_time(told.since);
  return facts;
}

/* Records the failure. Returns the result of that; errno is the error of one that says nothing else. */
static int record_failure(const unit_t& unit, const std::string& result, const repeat_t& told, int64_t now,
                          zk_eid_t eid) {
  const std::string process = unit.name.substr(unit.name.size() - std::min(unit.name.size(), PROCESS_NAME_MAX));
  std::array<cu_error_arg_t, 2> arguments = {};
  const std::string* const texts[] = {&unit.name, &result};
  for (size_t i = 0; i < arguments.size(); ++i) {
    arguments[i].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
    arguments[i].cu_arg_value.cu_arg_char_str = const_cast<char*>(texts[i]->c_str()); /* only read */
  }
  zk_incident_t incident = {};
  incident.process_name = process.c_str();
  incident.process_id = unit.process_id > 0 ? unit.process_id : 1; /* without one it was systemd that gave up */
  incident.parent_id = 1;
  incident.thread_id = incident.process_id;
  incident.product = "systemd";
  incident.default_message = "Unit %1$s failed: %2$s.";
  incident.arguments = arguments.data();
  incident.argument_count = arguments.size();

  std::string details = facts_of(unit, told);
  incident.details = details.c_str();
  zk_record_image_t image;
  size_t room = 0;
  if (zk_make_record_image(incident, ZK_REC_LISTED_MAX, &image) == ZELK_SUCCESS)
    room = ZK_REC_LENGTH_SIZE + ZK_REC_LISTED_MAX - image.size;
  const run_t run = read_run(unit, room);
  if (!run.lines.empty()) details += "\n" + run.lines;
  const std::string cause = find_cause(unit, run, now);
  incident.details = details.c_str();
  incident.associated_eid = cause.c_str();

  zk_recorder_t* recorder = nullptr;
  int made = zk_open_or_create_recorder(0, nullptr, UNITS_STACK, 0, &recorder);
  if (made == ZELK_SUCCESS) made = zk_record_incident(0, nullptr, recorder, &incident, eid);
  const int error = errno;
  zk_close_recorder(recorder);
  errno = error;
  return made;
}

int main(int argc, char** argv) {
  if (argc != 2) return fail("UNIT", "the name of a unit, and nothing else, is wanted");
  const std::string name = argv[1];
  if (!is_unit_name(name)) return fail("UNIT", "this is not the name of a unit");
  if (name.starts_with(OWN_UNITS)) return EXIT_SUCCESS; /* its failure would be recorded by what failed */

  unit_t unit;
  const std::string problem = read_unit(name, &unit);
  if (!problem.empty()) return fail(name, problem);
  const std::string result = result_in_words(unit);
  const char* const state = std::getenv("STATE_DIRECTORY");
  const std::string folder = state != nullptr ? state : FOLDER;
  const int64_t now = std::time(nullptr);
  std::vector<repeat_t> repeats = read_repeats(folder, name);
  repeat_t told = {};
  zk_eid_t eid = "";
  const bool is_passed_over = is_repeat(result, now, &repeats, &told);
  if (!is_passed_over) {
    const int recorded = record_failure(unit, result, told, now, eid);
    const char* const reason = recorded == ZELK_FAILURE && errno != 0 ? std::strerror(errno) : zk_result_text(recorded);
    if (recorded != ZELK_SUCCESS) return fail(std::string(ZELK_STACK_DIR "/") + UNITS_STACK, reason);
  }
  std::printf("%s: %s: %s\n", name.c_str(), result.c_str(), is_passed_over ? "as before, not recorded again" : eid);
  if (!write_repeats(folder, name, now, repeats)) return fail(folder, std::strerror(errno));
  return EXIT_SUCCESS;
}
