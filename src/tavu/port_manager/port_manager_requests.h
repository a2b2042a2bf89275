// What clients ask for: links published, changed and withdrawn, and subscriptions. The handlers are the port
// manager's own face; what stands here is for its life cycle.
#pragma once

#include "tavu/port_manager/port_manager_records.h"

namespace tavu::port_manager {

void delete_subscriber(subscriber_record& subscriber);

} // namespace tavu::port_manager
