// SDI transmitter probes (GV7600, GV7700) over spidev.
#pragma once

int gv7600_check(int mode);
int gv7700_check(int mode);
