// The ID checks every addressed command passes: a message is for this
// camera only when its ID really stands in it, and no check reads past the
// message.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_camera();  // the checks touch no file: the identity is all they need
  set_device_id(kDevId.c_str());
  const std::string msg(reinterpret_cast<const char*>(data), size);  // NUL-terminated copy
  const bool names_us = names_this_camera(msg);
  for (int (*check)(const char*) : {check_uuid, check_uuid_only_deviceid, check_uuid_bat}) {
    set_client_id("");
    const int rc = check(msg.c_str());
    fuzz_require(rc == 0 || rc == -1, "an ID check answered neither 0 nor -1");
    fuzz_require(rc != 0 || names_us, "an ID check accepted a message without this camera's ID");
    char client[kIdLen + 1];
    get_client_id(client);
    fuzz_require(strnlen(client, sizeof(client)) <= kIdLen, "client ID longer than an ID");
  }
  return 0;
}
