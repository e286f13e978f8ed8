/* The views of the command over whole and damaged stacks. */
#include "support.h"

TEST(dump, takes_the_wrap_once) {
  stack s;
  s.add("old").add("older").wrap().add("new");
  EXPECT_EQ(report(s, {"-d"}), HEADING + line("old") + line("older") + line("new"));
}
