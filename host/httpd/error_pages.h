// Which responses of a plug-in httpd's own error page takes the place of.
//
// Ownership: httpd's configuration pool. Threads: one while the configuration is read;
// from then on read only. Errors: none.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// Whether httpd's page is to stand in place of the response that is about to start: that
// of an error which the place overrides, or what a plug-in says where no server has
// answered and an ErrorDocument stands for its status.
[[nodiscard]] bool httpdAnswers(request_rec* r, const HostRequest& request);

}  // namespace host
