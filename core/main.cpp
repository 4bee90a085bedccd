#include "core/upgrade.h"

int main(int argc, char** argv) { return upgrade_main(argc, argv); }
