#include "wire/file_name.h"

#include <gtest/gtest.h>

#include <string>

TEST(FileNameTest, AcceptsNamesToolsSend) {
  for (const char* name : {"fw_K1.img", "app-3.1.34.zip", "X_ARM_V1.2.3_TYPE1.bin",
                           "uImage+dtb.bin", "a", "name.with.dots"})
    EXPECT_TRUE(is_safe_file_name(name)) << name;
}

TEST(FileNameTest, RefusesWhatCouldLeaveDevOrReachTheShell) {
  for (const char* name :
       {"", "a;b", "../etc/passwd", "sub/x.img", "..", "a b", "a\tb", "a\nb", "x$(id)", "x`id`",
        "a|b", "a&b", "a<b", "a>b", "a(b", "a)b", "a'b", "a\"b", "a\\b", "*.img", "a?.img",
        "a\x7f"})
    EXPECT_FALSE(is_safe_file_name(name)) << name;
  EXPECT_FALSE(is_safe_file_name(nullptr));
}

TEST(FileNameTest, PlainNamesMayHoldShellCharactersButStayInTheirFolder) {
  for (const char* name : {"a;b", "a b", "x$(id)", "it's"}) EXPECT_TRUE(is_plain_file_name(name)) << name;
  for (const char* name : {"", "../x", "a/b", "..", "a\tb", "a\x7f"})
    EXPECT_FALSE(is_plain_file_name(name)) << name;
  for (const char* name : {"fw_setenv", "busybox", "mtd_upgrade", "dhcp_ok", "upgrade_network.log"})
    EXPECT_TRUE(is_reserved_dev_name(name)) << name;
  EXPECT_FALSE(is_reserved_dev_name("fw_setenv.bin"));
}
