// The site's service switches in /customer/upgrade.conf.
#include <gtest/gtest.h>

#include "core/site_conf.h"
#include "fakes/fake_platform.h"

namespace {

// A missing file gives the defaults. Known keys are set, whatever the blanks
// and line ends around them; unknown keys, comments, bad values and an
// overlong line change nothing.
TEST(SiteConf, DefaultsKeysValuesAndJunk) {
  FakeCamera cam;
  site_conf_t conf;
  conf.broadcast = 7;
  EXPECT_EQ(read_site_conf(kSiteConfPath, &conf), -1);
  EXPECT_EQ(conf.status_report, 1);
  EXPECT_EQ(conf.broadcast, 0);
  EXPECT_EQ(conf.partner, 0);

  cam.write(kSiteConfPath, "# site switches\r\n status_report = 0 \r\nbroadcast=1\nfoo=1\n"
                           "partner=yes\n\n=1\npartner\n" +
                               std::string(600, 'x') + "partner=1\nbroadcast=12\n");
  EXPECT_EQ(read_site_conf(kSiteConfPath, &conf), 0);
  EXPECT_EQ(conf.status_report, 0);
  EXPECT_EQ(conf.broadcast, 12);
  EXPECT_EQ(conf.partner, 0);
}

}  // namespace
