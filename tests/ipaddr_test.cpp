/* SPDX-License-Identifier: MIT */
/* The addresses of a node. What is made of them stands in golden/library/interfaces.calls. */
#include "node.h"

#include <sched.h>

#include "support.h"

TEST(addresses, are_64_at_most) {
  node = std::vector<adapter>(70, {"eth", "10.0.0.2", UP});
  char list[65][46] = {};
  int count = 0;
  EXPECT_EQ(zk_obtain_ipaddrs(0, nullptr, list[0], 0, &count), 0);
  EXPECT_EQ(count, 64);
}

TEST(addresses, are_those_of_the_machine) {
  node.reset();
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "the machine forbids a network namespace";
  EXPECT_EQ(std::system("ip address add 127.0.0.1/8 dev lo && ip address add 10.0.0.2/8 dev lo label lo:1"), 0);
  char list[3][46] = {};
  int count = 0;
  EXPECT_EQ(zk_obtain_ipaddrs(0, nullptr, list[0], 0, &count), 0);
  EXPECT_STREQ(list[0], "127.0.0.1");
  EXPECT_STREQ(list[1], "10.0.0.2");
  EXPECT_EQ(count, 2);
}
