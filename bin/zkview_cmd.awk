# SPDX-License-Identifier: MIT
# Turns the message source (gencat format, quoted texts) into the initialisers of the built-in table: one C string
# literal for each message, in the order of their numbers. The escapes of both are the same, so texts pass unchanged.
# Ends with an error when a number is missing or out of order.

/^\$/ { next }

!continued && /^[0-9]+ "/ {
  if ($1 != expected++) exit_with("message " $1 " is out of order")
  sub(/^[0-9]+ "/, "")
  continued = 1
  text = ""
}

continued {
  if (sub(/\\$/, "")) {
    text = text $0
    next
  }
  if (!sub(/"$/, "")) exit_with("message " expected - 1 " does not end with a quote")
  print "\"" text $0 "\","
  continued = 0
}

function exit_with(reason) {
  print FILENAME ":" FNR ": " reason > "/dev/stderr"
  failed = 1
  exit 1
}

END { if (!failed && (continued || expected != 48)) exit_with("there are not 48 whole messages") }
