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
