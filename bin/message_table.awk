# SPDX-License-Identifier: MIT
# Turns a message source (gencat format, quoted texts) into the initialisers of a built-in table: one C string literal for
# each message, in the order of their numbers from `first` on. The escapes of both are the same, so texts pass unchanged.
# With `names`, a format of printf, it makes a line for the NAME of the comment "$ NAME: ..." above each message, and its
# number, instead. Ends with an error when a number is missing or out of order, or a name is missing.

BEGIN { expected = first }

/^\$ [A-Z][A-Z0-9_]*:/ { name = substr($2, 1, length($2) - 1) }
/^\$/ { next }

!continued && /^[0-9]+ "/ {
  if ($1 != expected++) exit_with("message " $1 " is out of order")
  if (name == "" && $1 > 0) exit_with("message " $1 " has no name")
  if (names && name != "") printf names "\n", name, $1
  name = ""
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
  if (!names) print "\"" text $0 "\","
  continued = 0
}

function exit_with(reason) {
  print FILENAME ":" FNR ": " reason > "/dev/stderr"
  failed = 1
  exit 1
}

END {
  if (failed) exit 1
  if (continued) exit_with("message " expected - 1 " is not whole")
}
