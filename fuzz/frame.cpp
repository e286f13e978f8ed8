/* SPDX-License-Identifier: MIT */
/* frame.cpp - the input is what a node sends, in pieces whose sizes do not matter. */
#include "../fleet/gather/frame.h"

#include "fuzz.h"

static bool is_part(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

static void check_message(std::string_view message) {
  const syslog_line_t split = split_message(message);
  FUZZ_EXPECT(is_part(split.line, message) && is_part(split.host, message) && is_part(split.place, message));
  FUZZ_EXPECT(split.line.size() == message.size() || message.starts_with('<'));
  for (const char character : split.host) FUZZ_EXPECT(character > ' ' && character < 0x7F && character != '\'');
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  check_message(bytes);
  size_t at = 0;
  for (;;) {
    const std::string_view rest = bytes.substr(at);
    frame_t frame;
    const frame_result_t result = parse_frame(rest, &frame);
    if (result == FRAME_BAD) {
      FUZZ_EXPECT(frame.reason != nullptr);
      break;
    }
    if (result == FRAME_SHORT) {
      FUZZ_EXPECT(rest.size() < FRAME_SIZE_MAX);
      break;
    }
    FUZZ_EXPECT(frame.size > 0 && frame.size <= rest.size() && frame.size <= FRAME_SIZE_MAX);
    FUZZ_EXPECT(is_part(frame.command, rest) && is_part(frame.content, rest) && rest[frame.size - 1] == '\n');
    check_message(frame.content);
    /* No part of it is a frame, nor is it found bad before it is whole. */
    frame_t part;
    FUZZ_EXPECT(parse_frame(rest.substr(0, frame.size - 1), &part) == FRAME_SHORT);
    at += frame.size;
  }
  return 0;
}
