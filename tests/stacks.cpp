/* SPDX-License-Identifier: MIT */
/* stacks.cpp - Error Stacks in the making, and as golden files describe them. */
#include <algorithm>
#include <sstream>

#include "support.h"

static constexpr int32_t AREA_START = 24;

static std::string padded(std::string bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

std::string eid(std::string_view name) {
  std::string id(name);
  id.resize(std::max(name.size(), size_t{42}), '.');
  return id;
}

std::string incident::body() const {
  return image(version) + padded(id, 43) + padded(related, 43) + image(time) + text(process) + image(pid) +
         image(parent) + image(thread) + text(file) + text(file_version) + text(product) + image(line) + text(catalog) +
         image(set) + image(number) + text(description) + image(arg_count) + args + text(details);
}

stack::stack(int32_t size)
    : header{AREA_START, AREA_START, AREA_START, size, 0}, area(static_cast<size_t>(size - AREA_START), '\0') {}

stack& stack::add_bytes(const std::string& record) {
  const size_t at = static_cast<size_t>(header.write_pos - AREA_START);
  if (at + record.size() > area.size()) area.resize(at + record.size());
  area.replace(at, record.size(), record);
  header.write_pos += static_cast<int32_t>(record.size());
  return *this;
}

stack& stack::wrap() {
  /* The older lap stays where it is; what is added from here on overwrites its beginning. */
  const size_t used = static_cast<size_t>(header.write_pos - AREA_START);
  const std::string older = area.substr(0, used);
  area.assign(area.size(), '\0');
  header.earliest_rec = static_cast<int32_t>(AREA_START + area.size() - used - 4);
  area.replace(area.size() - used - 4, used, older);
  header.write_pos = header.records_start;
  header.has_wrapped = 1;
  return *this;
}

/* ---- As golden files describe them ----------------------------------------------------------------------------- */

static const std::map<std::string, std::string incident::*> TEXTS = {
    {"id", &incident::id},           {"process", &incident::process},
    {"file", &incident::file},       {"file_version", &incident::file_version},
    {"product", &incident::product}, {"description", &incident::description},
    {"catalog", &incident::catalog}, {"details", &incident::details}};
static const std::map<std::string, int32_t incident::*> NUMBERS = {
    {"version", &incident::version}, {"argument_count", &incident::arg_count},
    {"time", &incident::time},       {"pid", &incident::pid},
    {"parent", &incident::parent},   {"thread", &incident::thread},
    {"line", &incident::line}};
static const std::map<std::string, std::string (*)(const std::string&)> ARGUMENTS = {
    {"int", [](const std::string& value) { return int_arg(std::stoi(value)); }},
    {"long", [](const std::string& value) { return int_arg(std::stoi(value), 1); }},
    {"long_long", [](const std::string& value) { return wide_arg<int64_t>(2, std::stoll(value)); }},
    {"double", [](const std::string& value) { return wide_arg<double>(3, std::stod(value)); }},
    {"reserved", [](const std::string& value) { return wide_arg<int64_t>(4, std::stoll(value)); }},
    {"string", [](const std::string& value) { return string_arg(value); }},
    {"pointer", [](const std::string& value) { return image(6) + padded(image(std::stoul(value)), 8); }},
    {"unknown", [](const std::string& value) { return wide_arg<int64_t>(7, std::stoll(value)); }}};
static const std::map<std::string, int32_t zk_estack_v1_header_t::*> OFFSETS = {
    {"records_start", &zk_estack_v1_header_t::records_start},
    {"write_pos", &zk_estack_v1_header_t::write_pos},
    {"earliest_rec", &zk_estack_v1_header_t::earliest_rec},
    {"file_size", &zk_estack_v1_header_t::file_size}};

std::string recorded(const std::string& fields) {
  const std::string name = fields.substr(0, fields.find("  "));
  incident what = {.id = eid(name), .description = name};
  std::string last, length;
  for (size_t at = name.size(), end; at < fields.size(); at = end) {
    end = std::min(fields.find("  ", at + 2), fields.size());
    const auto [field, value] = split(fields.substr(at + 2, end - at - 2));
    if (field == "cut") last = value;
    if (field == "length") length = value;
    if (field == "fill") what.details += std::string(std::stoul(value) - what.body().size(), 'd');
    if (field == "related") what.related = eid(value);
    if (TEXTS.contains(field)) what.*TEXTS.at(field) = unescaped(value);
    if (NUMBERS.contains(field)) what.*NUMBERS.at(field) = std::stoi(value);
    if (ARGUMENTS.contains(field)) what.args += ARGUMENTS.at(field)(value), ++what.arg_count;
  }
  std::string body = what.body();
  if (!last.empty()) body.resize(body.rfind(last) + last.size());
  return image(length.empty() ? static_cast<int32_t>(body.size()) : std::stoi(length)) + body;
}

std::string described_stack(const std::string& description) {
  stack made;
  size_t size = std::string::npos;
  std::map<size_t, int32_t> replaced_words;
  std::istringstream all(description);
  for (std::string line; std::getline(all, line);) {
    const auto [field, value] = split(line);
    if (field == "record") made.add_bytes(recorded(value));
    for (int count = field == "records" ? std::stoi(value) : 0; count > 0; --count) made.add(std::to_string(count));
    if (field == "wrap") made.wrap();
    if (field == "version") made.version = std::stoi(value);
    if (field == "has_wrapped") made.header.has_wrapped = static_cast<uint8_t>(std::stoi(value));
    if (field == "word") replaced_words[std::stoul(value)] = std::stoi(split(value).second);
    if (field == "bytes") size = static_cast<size_t>(std::stoi(value));
    if (OFFSETS.contains(field)) made.header.*OFFSETS.at(field) = std::stoi(value);
  }
  std::string bytes = made.bytes();
  for (const auto& [offset, word] : replaced_words) bytes.replace(offset, 4, image(word));
  if (size != std::string::npos) bytes.resize(size);
  return bytes;
}
