/* SPDX-License-Identifier: MIT */
/* What recording programs put into records. The rest stands in golden/library/file_info.calls and priority.calls. */
#include "support.h"

TEST(file_info, that_is_too_long_is_followed_by_zeros_for_the_rest) {
  std::string buffer(6000, '#');
  int flags[11] = {};
  const std::string product(34, 'p'), file(5000, 'f'); /* with ",,1.5,-7", 5042 characters */
  EXPECT_EQ(zk_make_file_info_msg(0, nullptr, buffer.data(), product.c_str(), file.c_str(), "1.5", -7, flags), 46);
  EXPECT_EQ(buffer, product + ",ffffffffff>" + std::string(5042 - 46, '\0') + std::string(6000 - 5042, '#'));
}
