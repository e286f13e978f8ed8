/* SPDX-License-Identifier: MIT */
/* The addresses of a node: those of its interfaces, and their code in an Error ID. */
#include "node.h"

#include <sched.h>

#include "support.h"

/* The addresses that a list of `slots` slots gets, and what their number grows by, from 100. */
static std::string listed(int* count) {
  char list[65][46] = {};
  std::string addresses;
  EXPECT_EQ(zk_obtain_ipaddrs(0, nullptr, list[0], 0, count), 0);
  for (const char* slot = list[0]; *slot != '\0'; slot += 46) addresses += std::string(slot) + " ";
  return addresses;
}
/* The one that stands for the node. */
static std::string first() {
  char address[46] = "";
  int count = 100;
  EXPECT_EQ(zk_obtain_ipaddrs(0, nullptr, address, 1, &count), 0);
  EXPECT_EQ(count, 1);
  return address;
}

TEST(addresses, are_64_at_most) {
  node = std::vector<adapter>(70, {"eth", "10.0.0.2", UP});
  int count = 0;
  listed(&count);
  EXPECT_EQ(count, 64);
}

TEST(addresses, leave_out_interfaces_of_another_family) {
  node = {{"ax0", "10.0.0.2", UP, AF_AX25}, {"eth0", "10.0.0.4", UP}};
  int count = 0;
  EXPECT_EQ(listed(&count), "10.0.0.4 ");
  EXPECT_EQ(first(), "10.0.0.4");
}

TEST(addresses, are_asked_for_again_after_an_interruption_and_no_other_fault) {
  node = {{"eth1", "10.0.0.4", UP}};
  for (const char* call : {"socket", "interfaces", "flags"}) {
    refuse(call, EINTR, 2);
    const size_t open_files = open_descriptors();
    EXPECT_EQ(first(), "10.0.0.4");
    EXPECT_EQ(fault.times, 0);
    refuse(call, EPERM);
    EXPECT_EQ(zk_obtain_ipaddrs(0, nullptr, nullptr, 0, nullptr), -1);
    EXPECT_EQ(open_descriptors(), open_files);
  }
}

TEST(addresses, that_cannot_be_had_are_traced_although_tracing_is_off) {
  const std::string trace = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");
  node = {{"eth0", "192.168.1.2", UP}};
  refuse("flags", EPERM);
  char code[25] = "", type = 't';
  EXPECT_EQ(zk_get_ipaddr(0, trace.c_str(), code, &type), -1);
  EXPECT_EQ(trace_entries(trace).back(),
            "zk_get_ipaddr\n\tUnable to query any net adapters - return ZELK_FAILURE(-1)\n");
}

TEST(addresses, are_those_of_the_machine) {
  node.reset();
  const int machine = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "the machine forbids a network namespace";
  int count = 0;
  EXPECT_EQ(listed(&count), "");
  EXPECT_EQ(std::system("ip address add 127.0.0.1/8 dev lo && ip address add 10.0.0.2/8 dev lo label lo:1"), 0);
  EXPECT_EQ(listed(&count), "127.0.0.1 10.0.0.2 ");
  EXPECT_EQ(setns(machine, CLONE_NEWNET) + close(machine), 0);
}
