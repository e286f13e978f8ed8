/* SPDX-License-Identifier: MIT */
/* json_input.cpp - takes a line of JSON as json.cpp writes it. Pipelines may have added keys of their own. */
#include <rapidjson/document.h>

#include "json.h"
#include "qx_zelk.h"
#include "text.h"
#include "utc_time.h"

using rapidjson::Value;

/* Each takes the member `key` of an object. Returns false when it is missing or something else. */

static const Value* member(const Value& object, const char* key) {
  const auto found = object.FindMember(key);
  return found != object.MemberEnd() ? &found->value : nullptr;
}

static const Value* object_member(const Value& object, const char* key) {
  const Value* const value = member(object, key);
  return value != nullptr && value->IsObject() ? value : nullptr;
}

static bool take(const Value& object, const char* key, std::string* text) {
  const Value* const value = member(object, key);
  if (value == nullptr || !value->IsString()) return false;
  text->assign(value->GetString(), value->GetStringLength());
  return true;
}

static bool take(const Value& object, const char* key, int32_t* number) {
  const Value* const value = member(object, key);
  if (value == nullptr || !value->IsInt()) return false;
  *number = value->GetInt();
  return true;
}

static bool take(const Value& object, const char* key, int64_t* number) {
  const Value* const value = member(object, key);
  if (value == nullptr || !value->IsInt64()) return false;
  *number = value->GetInt64();
  return true;
}

static bool is_eid_text(const std::string& text) {
  size_t count = 0;
  for (size_t at = 0; at < text.size(); ++count) at += character_at(text, at).size;
  return count <= ZELK_EID_LENGTH;
}

static bool take_id(const Value& object, const char* key, std::string* id) {
  const Value* const value = member(object, key);
  id->clear();
  if (value != nullptr && value->IsNull()) return true;
  return take(object, key, id) && is_eid_text(*id);
}

static bool take_times(const Value& object, incident_t* incident) {
  std::string text;
  int64_t microseconds = 0;
  if (!take(object, "time", &text) || !parse_utc_time(text, &microseconds)) return false;
  incident->time = microseconds / SECOND;
  incident->node.clear();
  if (member(object, "id_time") == nullptr && member(object, "node") == nullptr) return true;
  return take(object, "node", &incident->node) && take(object, "id_time", &text) &&
         parse_utc_time(text, &incident->id_time);
}

/* Takes the value of an argument as it is shown. */
static bool take_value(const Value& object, argument_t* argument) {
  if (take(object, "value", &argument->value)) return true;
  const Value* const value = member(object, "value");
  argument->is_number = value != nullptr && value->IsNumber();
  if (!argument->is_number) return false;
  if (value->IsInt64())
    argument->value = std::to_string(value->GetInt64());
  else
    argument->value = digits_of_double(value->GetDouble());
  return true;
}

static bool take_message(const Value& message, incident_t* incident) {
  if (!take(message, "catalog", &incident->catalog) || !take(message, "set", &incident->message_set) ||
      !take(message, "number", &incident->message_number) || !take(message, "default", &incident->default_message))
    return false;
  const Value* const arguments = member(message, "arguments");
  if (arguments == nullptr || !arguments->IsArray()) return false;
  incident->arguments.clear();
  for (const Value& element : arguments->GetArray()) {
    argument_t argument = {"", "", false};
    if (!element.IsObject() || !take(element, "type", &argument.type) || !take_value(element, &argument)) return false;
    incident->arguments.push_back(argument);
  }
  return true;
}

static bool take_incident(const Value& object, incident_t* incident) {
  const Value* const process = object_member(object, "process");
  const Value* const source = object_member(object, "source");
  const Value* const message = object_member(object, "message");
  if (process == nullptr || source == nullptr || message == nullptr) return false;
  return take(object, "stack", &incident->stack) && take(object, "offset", &incident->offset) &&
         take_id(object, "id", &incident->id) && take_id(object, "cause", &incident->cause) &&
         take_times(object, incident) && take(*process, "name", &incident->process) &&
         take(*process, "id", &incident->process_id) && take(*process, "parent", &incident->parent_id) &&
         take(*process, "thread", &incident->thread_id) && take(*source, "file", &incident->file) &&
         take(*source, "version", &incident->file_version) && take(*source, "product", &incident->product) &&
         take(*source, "line", &incident->line) && take_message(*message, incident) &&
         take(object, "description", &incident->description) && take(object, "details", &incident->details);
}

std::string gap_note(const std::string& stack) {
  return stack + ": incidents were overwritten before they could be read";
}

std::string trouble_note(const std::string& stack, const trouble_t& trouble) {
  return stack + ": " + trouble.reason +
         (trouble.offset >= 0 ? " (at offset " + std::to_string(trouble.offset) + ")" : "");
}

bool parse_json(const std::string& line, incident_t* incident, std::string* note) {
  constexpr unsigned int FLAGS = rapidjson::kParseIterativeFlag | /* however deep it is */
                                 rapidjson::kParseValidateEncodingFlag | rapidjson::kParseFullPrecisionFlag;
  rapidjson::Document document;
  document.Parse<FLAGS>(line.data(), line.size());
  note->clear();
  if (document.HasParseError() || !document.IsObject()) return false;
  std::string stack, reason;
  const Value* const gap = member(document, "gap");
  const Value* const error = object_member(document, "error");
  if (gap == nullptr && error == nullptr) return take_incident(document, incident);

  if (!take(document, "stack", &stack)) return false;
  if (gap != nullptr) {
    *note = gap_note(stack);
    return gap->IsTrue();
  }
  trouble_t trouble;
  if (!take(*error, "reason", &trouble.reason)) return false;
  take(*error, "offset", &trouble.offset);
  *note = trouble_note(stack, trouble);
  return true;
}
