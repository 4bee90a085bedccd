// A build without libnorm (camtool for Windows): no NORM sender, so no
// camera is offered NORM and every one gets the packet stream.
#include "camtool/norm.h"

namespace camtool {

std::unique_ptr<norm_sender> make_norm_sender(const std::string&) { return nullptr; }

}  // namespace camtool
