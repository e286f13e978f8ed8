/* The addresses of a node: those of its interfaces, and their code in an Error ID. */
#include "node.h"

#include <sched.h>

#include "transcript.h"

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

TEST(addresses, of_all_interfaces_are_listed_in_their_order) {
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "10.0.0.2", DOWN}, {"lo:1", "127.0.0.1", LOOPBACK}};
  int count = 100;
  EXPECT_EQ(listed(&count), "127.0.0.1 10.0.0.2 127.0.0.1 ");
  EXPECT_EQ(count, 103);
  EXPECT_EQ(listed(nullptr), "127.0.0.1 10.0.0.2 127.0.0.1 ");
}

TEST(addresses, are_64_at_most) {
  node = std::vector<adapter>(70, {"eth", "10.0.0.2", UP});
  int count = 0;
  listed(&count);
  EXPECT_EQ(count, 64);
}

TEST(addresses, of_a_node_are_represented_by_the_first_that_is_no_loopback_that_is_up) {
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "10.0.0.2", DOWN}, {"eth1", "10.0.0.3", UP}};
  EXPECT_EQ(first(), "10.0.0.2");
  node = {{"lo", "127.0.0.1", IFF_LOOPBACK}, {"eth1", "10.0.0.3", UP}};
  EXPECT_EQ(first(), "127.0.0.1");
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"lo:1", "127.0.0.5", LOOPBACK}, {"eth1", "10.0.0.3", UP}};
  EXPECT_EQ(first(), "127.0.0.5");
  node = {{"lo", "127.0.0.1", LOOPBACK}};
  EXPECT_EQ(first(), "127.0.0.1");
  node->clear();
  EXPECT_EQ(first(), "");
}

TEST(addresses, leave_out_interfaces_of_another_family_and_those_without_an_address) {
  node = {{"ax0", "10.0.0.2", UP, 0, AF_AX25}, {"eth0", "10.0.0.3", UP, EADDRNOTAVAIL}, {"eth1", "10.0.0.4", UP}};
  int count = 0;
  EXPECT_EQ(listed(&count), "10.0.0.4 ");
  EXPECT_EQ(first(), "10.0.0.4");
}

TEST(addresses, leave_out_interfaces_that_vanish_between_the_queries) {
  node = {{"gone", "10.0.0.2", UP, ENODEV}, {"also", "10.0.0.3", UP, ENXIO}, {"eth1", "10.0.0.4", UP}};
  int count = 0;
  EXPECT_EQ(listed(&count), "10.0.0.4 ");
  EXPECT_EQ(count, 1);
}

TEST(addresses, are_asked_for_again_after_an_interruption) {
  node = {{"eth1", "10.0.0.4", UP}};
  for (const char* call : {"socket", "list of interfaces", "flags of an interface"}) {
    refuse(call, EINTR, 2);
    EXPECT_EQ(first(), "10.0.0.4");
    EXPECT_EQ(fault.times, 0);
  }
}

TEST(addresses, say_what_they_are_and_leave_no_descriptor_open) {
  transcript said{"addresses"};
  const size_t open_files = count_files("/proc/self/fd");
  char list[65][46] = {}, code[25] = "", type[2] = "";
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "10.0.0.1", DOWN}, {"eth1", "192.168.1.2", -4029}};
  CALL(said, zk_obtain_ipaddrs, list[0], 0, nullptr).gives(list[0], list[1], list[2], list[3]);
  CALL(said, zk_obtain_ipaddrs, list[3], 1, nullptr).gives(list[3]);
  CALL(said, zk_get_ipaddr, code, type).gives(code, type);
  node->clear();
  CALL(said, zk_get_ipaddr, code, type).gives(code, type);
  node = {{"eth2", "192.168.1.2", UP, EPERM}};
  CALL(said, zk_obtain_ipaddrs, list[0], 0, nullptr);
  CALL(said, zk_get_ipaddr, code, type);
  refuse("list of interfaces", ENOMEM, 2);
  CALL(said, zk_obtain_ipaddrs, list[0], 0, nullptr);
  refuse("socket", EMFILE, 2);
  CALL(said, zk_obtain_ipaddrs, list[0], 0, nullptr);
  CALL(said, zk_get_ipaddr, nullptr, nullptr);
  CALL(said, zk_get_ipaddr, code, nullptr);
  EXPECT_EQ(count_files("/proc/self/fd"), open_files);
  said.compare();
}

TEST(addresses, that_cannot_be_had_are_traced_although_tracing_is_off) {
  const std::string trace = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");
  node = {{"eth2", "192.168.1.2", UP, EPERM}};
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

TEST(address_type, is_ipv4_for_four_runs_of_digits) {
  for (const char* ipv4 : {"1.2.3.4", "0.0.0.0", "999.999.999.999", "..."})
    EXPECT_EQ(zk_is_addr_ipv6_type(ipv4), 0) << ipv4;
  for (const char* other :
       {"", "1", "1.2.3", "1.2.3.4.5", "1.2.3.4 ", "1.2.3.a", "fe80::1", "::1.2.3.4", "/.1.2.3", "1.:.2.3"})
    EXPECT_EQ(zk_is_addr_ipv6_type(other), 1) << other;
}
