#include "mcu/arm_image.h"
// placeholder until the module lands
void check_arm(int) {}
int update_arm_version(int) { return 1; }
