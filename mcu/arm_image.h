// Controller image selection, version record and preset sync.
#pragma once

void check_arm(int restore_image_conf);
int update_arm_version(int mode);
